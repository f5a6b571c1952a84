#include "resolve/parse_shortcut.h"

#include "common/strutil.h"
#include "diag/log_writer.h"
#include "diag/trace.h"
#include "registry/reg_util.h"
#include "resolve/wow64.h"

#include <shlwapi.h>

#include <algorithm>

namespace kw {

namespace {

const wchar_t kClasses[] = L"SOFTWARE\\Classes";
// The class's default value is read into a 520-byte buffer.
constexpr size_t kClassNameChars = 520 / sizeof(wchar_t) - 1;

CLnkFileExt g_lnkFileExt;

CRITICAL_SECTION* LnkExtLock() {
    // Initialised on first use and kept for the life of the process.
    static CRITICAL_SECTION* cs = [] {
        static CRITICAL_SECTION section;
        InitializeCriticalSection(&section);
        return &section;
    }();
    return cs;
}

}  // namespace

int CLnkFileExt::IsLnkExt(const wchar_t* extension) const {
    if (!extension) return 0;
    if (EqualsNoCase(extension, L".lnk")) return 1;
    return ContainsNoCase(m_extensions, extension) ? 1 : 0;
}

void CLnkFileExt::Load() {
    if (m_bLoaded) return;
    // Under WOW64 the machine's classes are read in the 64-bit view, where the
    // shell that opens the shortcuts registers them.
    const REGSAM view = GetWow64Helper()->m_bIsWow64 ? KEY_WOW64_64KEY : 0;
    CEnumKey classes(HKEY_LOCAL_MACHINE, kClasses, view);
    std::wstring ext;
    for (DWORD index = 0; classes.Next(index, ext); ++index) {
        if (ext.empty() || ext[0] != L'.') continue;
        const std::wstring extKey = std::wstring(kClasses) + L"\\" + ext;
        DWORD type = REG_NONE;
        std::wstring className;
        if (!RegReadRawText(HKEY_LOCAL_MACHINE, extKey.c_str(), nullptr, view, &type, className)) continue;
        className.resize(LenBounded(className.c_str(), std::min(className.size(), kClassNameChars)));
        if (className.empty()) continue;
        const std::wstring handler = std::wstring(kClasses) + L"\\" + className +
                                     L"\\shellex\\ContextMenuHandlers\\{00021401-0000-0000-C000-000000000046}";
        unique_hkey key;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, handler.c_str(), 0, KEY_READ | view, key.put()) != ERROR_SUCCESS)
            continue;
        if (!EqualsNoCase(ext, L".lnk")) m_extensions.push_back(ext);
    }
    InterlockedExchange(&m_bLoaded, 1);
}

CLnkFileExt* GetLnkFileExt() {
    if (g_lnkFileExt.m_bLoaded) return &g_lnkFileExt;
    cs_lock lock(*LnkExtLock());
    try {
        g_lnkFileExt.Load();
    } catch (...) {
        // Out of memory: the list stays as far as it was built.
        InterlockedExchange(&g_lnkFileExt.m_bLoaded, 1);
    }
    return &g_lnkFileExt;
}

int CParseShortcut::_Parse(const std::wstring& linkPath, std::wstring& strPath, std::wstring& strParam,
                           std::wstring& strThird, DWORD* value, std::list<std::wstring>* paths,
                           DWORD* flag) {
    strPath.clear();
    strParam.clear();
    strThird.clear();
    if (value) *value = 0;
    if (paths) paths->clear();
    if (flag) *flag = 0;
    static const char kFn[] = "CParseShortcut::_Parse";
    KW_INFO(kFn, "[LNK] parse link file %ls", linkPath.c_str());
    FileLogIfOpen("ParseShortcut", kFn, __LINE__, "[LNK] parse link file %ls", linkPath.c_str());
    // The target is not read in this release: the outputs stay empty.
    KW_INFO(kFn, "[LNK] link file %ls, strPath=%ls, strParam=%ls", linkPath.c_str(), strPath.c_str(),
            strParam.c_str());
    FileLogIfOpen("ParseShortcut", kFn, __LINE__, "[LNK] link file %ls, strPath=%ls, strParam=%ls",
                  linkPath.c_str(), strPath.c_str(), strParam.c_str());
    return 0;
}

int ParseShortcutFile(const std::wstring& linkPath, std::wstring& strPath, std::wstring& strParam,
                      std::wstring& strThird, DWORD* value, std::list<std::wstring>* paths,
                      DWORD* flag) {
    if (GetWow64Helper()->m_bIsWow64) {
        CAutoWow64PauseDisable pause;
        return CParseShortcut::_Parse(linkPath, strPath, strParam, strThird, value, paths, flag);
    }
    return CParseShortcut::_Parse(linkPath, strPath, strParam, strThird, value, paths, flag);
}

int ResolveShortcutFile(const std::wstring& filePath, std::wstring& strPath, std::wstring& strParam,
                        std::wstring& strThird, std::list<std::wstring>* paths, DWORD* flag) {
    if (paths) paths->clear();
    if (flag) *flag = 0;
    strPath.clear();
    strParam.clear();
    strThird.clear();
    if (!PathFileExistsW(filePath.c_str())) return 0;
    if (!GetLnkFileExt()->IsLnkExt(PathFindExtensionW(filePath.c_str()))) return 0;
    DWORD value = 0;
    if (ParseShortcutFile(filePath, strPath, strParam, strThird, &value, paths, flag) != 0) {
        strPath.clear();
        strParam.clear();
        strThird.clear();
        return 0;
    }
    return 1;
}

}  // namespace kw
