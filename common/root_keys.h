// Predefined registry root keys carried as their 32-bit handle values, as the
// rules, the analysis record and the traces use them.
#pragma once
#include <cstdint>

namespace kw {

enum : uint32_t {
    KW_HKEY_CLASSES_ROOT = 0x80000000u,
    KW_HKEY_CURRENT_USER = 0x80000001u,
    KW_HKEY_LOCAL_MACHINE = 0x80000002u,
    KW_HKEY_USERS = 0x80000003u,
    KW_HKEY_PERFORMANCE_DATA = 0x80000004u,
    KW_HKEY_CURRENT_CONFIG = 0x80000005u,
    KW_HKEY_PERFORMANCE_TEXT = 0x80000050u,
    KW_HKEY_PERFORMANCE_NLSTEXT = 0x80000060u,
};

}  // namespace kw
