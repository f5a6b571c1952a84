#include "analyze/analysis_record.h"

namespace kw {

const char* OperateTraceWord(uint32_t op) noexcept {
    switch (op) {
        case REGMONMODE_OPERATE_ADDKEY: return "add key";
        case REGMONMODE_OPERATE_MODIFYKEY: return "modify key";
        case REGMONMODE_OPERATE_DELKEY: return "del key";
        case REGMONMODE_OPERATE_MODIFYVALUE: return "modify value";
        case REGMONMODE_OPERATE_DELVALUE: return "del value";
        default: return "opt err";
    }
}

const wchar_t* RootKeyTracePrefix(uint32_t root) noexcept {
    switch (root) {
        case KW_HKEY_CLASSES_ROOT: return L"HKEY_CLASSES_ROOT\\";
        case KW_HKEY_CURRENT_USER: return L"HKEY_CURRENT_USER\\";
        case KW_HKEY_LOCAL_MACHINE: return L"HKEY_LOCAL_MACHINE\\";
        case KW_HKEY_USERS: return L"HKEY_USERS\\";
        case KW_HKEY_PERFORMANCE_DATA: return L"HKEY_PERFORMANCE_DATA\\";
        case KW_HKEY_PERFORMANCE_TEXT: return L"HKEY_PERFORMANCE_TEXT\\";
        case KW_HKEY_PERFORMANCE_NLSTEXT: return L"HKEY_PERFORMANCE_NLSTEXT\\";
        default: return L"";
    }
}

HKEY RootKeyHandle(uint32_t root) noexcept {
    switch (root) {
        case KW_HKEY_CLASSES_ROOT: return HKEY_CLASSES_ROOT;
        case KW_HKEY_CURRENT_USER: return HKEY_CURRENT_USER;
        case KW_HKEY_LOCAL_MACHINE: return HKEY_LOCAL_MACHINE;
        case KW_HKEY_USERS: return HKEY_USERS;
        case KW_HKEY_CURRENT_CONFIG: return HKEY_CURRENT_CONFIG;
        default: return nullptr;
    }
}

}  // namespace kw
