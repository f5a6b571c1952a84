#include "plugin/reg_key_translate.h"

#include "common/strutil.h"
#include "resolve/wow64.h"

namespace kw {

CRegKeyTranslate::CRegKeyTranslate() {
    ZeroMemory(m_szCurrentControlSet, sizeof(m_szCurrentControlSet));
    ZeroMemory(m_szReserved, sizeof(m_szReserved));
    ZeroMemory(m_reserved, sizeof(m_reserved));
}

CRegKeyTranslate::~CRegKeyTranslate() = default;

bool CRegKeyTranslate::Init() {
    CopyBounded(m_szCurrentControlSet, MAX_PATH, GetCurrentControlSetName());
    return true;
}

}  // namespace kw
