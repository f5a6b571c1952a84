#include "plugin/transform_reg_path.h"

#include "common/strutil.h"
#include "diag/trace.h"

#include <windows.h>

#include <iterator>

namespace kw {

namespace {

struct RootRow {
    const wchar_t* prefix;
    uint32_t rootKey;
};

// Root names as registry functions and users write them.
const RootRow kLongNames[] = {
    {L"HKEY_USERS", KW_HKEY_USERS},
    {L"HKEY_CURRENT_CONFIG", KW_HKEY_CURRENT_CONFIG},
    {L"HKEY_CLASSES_ROOT", KW_HKEY_CLASSES_ROOT},
    {L"HKEY_LOCAL_MACHINE", KW_HKEY_LOCAL_MACHINE},
    {L"HKEY_CURRENT_USER", KW_HKEY_CURRENT_USER},
};

// Kernel object paths; the longer machine prefixes come before "\REGISTRY\MACHINE".
const RootRow kKernelNames[] = {
    {L"\\REGISTRY\\USER", KW_HKEY_USERS},
    {L"\\REGISTRY\\MACHINE\\SYSTEM\\CURRENTCONTROLSET\\HARDWARE PROFILES\\CURRENT",
     KW_HKEY_CURRENT_CONFIG},
    {L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES", KW_HKEY_CLASSES_ROOT},
    {L"\\REGISTRY\\MACHINE", KW_HKEY_LOCAL_MACHINE},
};

struct RootTable {
    const RootRow* rows;
    size_t count;
};
const RootTable kTables[] = {{kLongNames, std::size(kLongNames)},
                             {kKernelNames, std::size(kKernelNames)}};

constexpr size_t kCchRootName = 256;

// Whether path begins with prefix (ignoring case); never reads past the end of path.
bool HasPrefix(const wchar_t* path, const wchar_t* prefix, size_t cchPrefix) noexcept {
    if (LenBounded(path, cchPrefix) < cchPrefix) return false;
    return CompareStringOrdinal(path, static_cast<int>(cchPrefix), prefix,
                                static_cast<int>(cchPrefix), TRUE) == CSTR_EQUAL;
}

// The first row, long names before kernel paths, whose prefix path starts with.
const RootRow* FindRoot(const wchar_t* path, size_t* cchPrefix) noexcept {
    for (const RootTable& table : kTables) {
        for (size_t i = 0; i < table.count; ++i) {
            const size_t cch = LenBounded(table.rows[i].prefix, kCchRootName);
            if (HasPrefix(path, table.rows[i].prefix, cch)) {
                *cchPrefix = cch;
                return &table.rows[i];
            }
        }
    }
    return nullptr;
}

// The text one character after the prefix (that character is not checked),
// or the empty text at the path's end. A sub-key never starts with a
// separator, so any left at its front (HKEY_USERSX\a, doubled separators)
// are skipped too: both give the sub-key "a".
const wchar_t* SubKeyStart(const wchar_t* path, size_t cchPrefix) noexcept {
    const wchar_t* rest = path + cchPrefix;
    if (*rest) ++rest;
    while (*rest == L'\\') ++rest;
    return rest;
}

const RootRow* Split(const wchar_t* path, uint32_t* rootKey, const wchar_t** subKey) {
    if (!path || !rootKey) return nullptr;
    size_t cchPrefix = 0;
    const RootRow* row = FindRoot(path, &cchPrefix);
    if (!row) {
        KW_ERROR("TransformRegPath", "error ===> unknown reg root key: %ls", path);
        return nullptr;
    }
    *rootKey = row->rootKey;
    *subKey = SubKeyStart(path, cchPrefix);
    return row;
}

}  // namespace

bool TransformRegPath(const wchar_t* path, uint32_t* rootKey, std::wstring* subKey) {
    const wchar_t* rest = nullptr;
    if (!Split(path, rootKey, &rest)) return false;
    if (subKey) subKey->assign(rest);
    return true;
}

bool TransformRegPath(const wchar_t* path, uint32_t* rootKey, wchar_t* subKey, size_t cchSubKey) {
    const wchar_t* rest = nullptr;
    if (!Split(path, rootKey, &rest)) return false;
    if (subKey) CopyBounded(subKey, cchSubKey, rest);
    return true;
}

}  // namespace kw
