// FunctionID 15: a change of the default value of a class's open command
// ("\shell\open\command" under a classes key, machine-wide or per user) is
// analysed as a file-path value (FunctionID 5).
#include "analyze/analizy_operate.h"

#include "analyze/reg_path_match.h"
#include "common/strutil.h"
#include "diag/trace.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzFileLink(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    static const char kFn[] = "CAnalizyOperate::AnalyzFileLink";
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    if (pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE) {
        KW_ERROR(kFn, " pAnalizy->dwOperate != REGMONMODE_OPERATE_MODIFYVALUE");
        return ANALYZ_NOT_HANDLED;
    }
    // The message names the current-user root although the per-user hive
    // root is what is accepted; log readers know it in this wording.
    // HKEY_CLASSES_ROOT is accepted too: a kernel path of the machine's
    // classes arrives under it and is the machine's classes key.
    const uint32_t root = pAnalizy->hRootkey;
    if (root != KW_HKEY_USERS && root != KW_HKEY_LOCAL_MACHINE && root != KW_HKEY_CLASSES_ROOT) {
        KW_ERROR(kFn, " pAnalizy->hRootkey != HKEY_CURRENT_USER && pAnalizy->hRootkey != HKEY_LOCAL_MACHINE");
        return ANALYZ_NOT_HANDLED;
    }
    if (!IsDefaultValueName(RecordValueName(pAnalizy))) {
        KW_ERROR(kFn, " _wcsicmp((LPTSTR)pAnalizy->szValuename, _T()) != 0 && "
                      "_wcsicmp((LPTSTR)pAnalizy->szValuename, _T(default_null)) != 0");
        return ANALYZ_NOT_HANDLED;
    }

    const std::wstring subkey = RecordSubkey(pAnalizy);
    if (root != KW_HKEY_CLASSES_ROOT) {
        wchar_t userClasses[MAX_PATH] = {0};
        if (!FormatBounded(userClasses, MAX_PATH, "%ls_CLASSES", m_szSid)) {
            KW_ERROR(kFn, "%ls, m_szSid:%ls, cls copy error:%d", subkey.c_str(), m_szSid,
                     static_cast<int>(ERROR_INSUFFICIENT_BUFFER));
        } else if (FindNoCase(subkey, userClasses) == std::wstring::npos) {
            static const wchar_t kMachineClasses[] = L"SOFTWARE\\Classes\\";
            if (FindNoCase(subkey, kMachineClasses) == std::wstring::npos) {
                KW_ERROR(kFn, "%ls, StrStrI(%ls) == NULL", subkey.c_str(), kMachineClasses);
                return ANALYZ_NOT_HANDLED;
            }
            KW_INFO(kFn, "%ls,SOFTWARE\\Classes ) success.", subkey.c_str());
        }
    }
    if (FindNoCase(subkey, L"\\shell\\open\\command") == std::wstring::npos) return ANALYZ_NOT_HANDLED;
    return RunAnalyzer(5, pAnalizy, std::wstring());
}

}  // namespace kw
