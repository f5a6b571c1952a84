// FunctionID 12: services and drivers. A new or changed service key yields
// the image or service DLL that the service controller would load: the
// "ImagePath" or "ServiceDll" data in its kernel, boot and relative forms, or,
// for a new key without an image path, the driver file the loader would take
// from the drivers folder for a service of that name.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "diag/trace.h"
#include "resolve/expand_path.h"
#include "resolve/wow64.h"

#include <shlwapi.h>

#include <algorithm>

namespace kw {

namespace {

const char kServece[] = "CAnalizyOperate::AnalyzServece";
const char kFilePath[] = "CAnalizyOperate::AnalyzServiceFilePath";

// The image path forms the service controller and the loader accept, turned
// into a command line with the Windows directory spelled out.
std::wstring NormaliseImagePath(const std::wstring& data, const std::wstring& windowsDir) {
    static const wchar_t kSystemRoot[] = L"\\systemroot";
    if (data.compare(0, 4, L"\\??\\") == 0) return data.substr(4);
    if (StartsWithNoCase(data, kSystemRoot)) return windowsDir + data.substr(wcslen(kSystemRoot));
    if (StartsWithNoCase(data, L"system32\\")) return windowsDir + L"\\" + data;
    return data;
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzServece(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    if (pAnalizy->dwOperate == REGMONMODE_OPERATE_MODIFYVALUE) {
        const std::wstring name = RecordValueName(pAnalizy);
        if (!EqualsNoCase(name, L"ImagePath") && !EqualsNoCase(name, L"ServiceDll")) {
            KW_INFO(kServece, "注册表ValueName无效。ValueName必须是ImagePath或ServiceDll");
            return ANALYZ_NOT_HANDLED;
        }
        return AnalyzServiceFilePath(pAnalizy, 1);
    }
    if (pAnalizy->dwOperate == REGMONMODE_OPERATE_ADDKEY || pAnalizy->dwOperate == REGMONMODE_OPERATE_MODIFYKEY)
        return AnalyzServiceFilePath(pAnalizy, 0);
    return ANALYZ_NOT_HANDLED;
}

uint32_t CAnalizyOperate::AnalyzServiceFilePath(const ANALYZE_ITEM* pAnalizy, int valueMode) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;

    // 1. and 2. The key must lie below the services key of the current
    // control set; what follows it is the service part ("Beep",
    // "Svc\Parameters"). The sub-key is taken to 259 characters.
    wchar_t subkey[MAX_PATH];
    CopyBounded(subkey, MAX_PATH, pAnalizy->szSubkey, kSubkeyChars);
    const std::wstring servicesPath = std::wstring(L"SYSTEM\\") + GetCurrentControlSetName() + L"\\Services\\";
    KW_INFO(kFilePath, "szSubkey=%ls ServicesRegPath=%ls", subkey, servicesPath.c_str());
    if (!StartsWithNoCase(subkey, servicesPath)) return ANALYZ_NOT_HANDLED;
    const std::wstring servicePart(subkey + servicesPath.size());

    // 3.
    wchar_t windowsDir[MAX_PATH] = {0};
    if (!GetWindowsDirectoryW(windowsDir, MAX_PATH)) windowsDir[0] = L'\0';

    const std::wstring valueName = RecordValueName(pAnalizy);
    const std::wstring data = RecordDataText(pAnalizy);

    // 4. A key without an image path: the driver the loader would take for a
    // service of that name. Separators are dropped, so a change below the
    // service key ("Beep\Parameters") names "BeepParameters.sys".
    if (valueMode == 0 || (EqualsNoCase(valueName, L"ImagePath") && data.empty())) {
        std::wstring driver = servicePart;
        driver.erase(std::remove(driver.begin(), driver.end(), L'\\'), driver.end());
        wchar_t reported[MAX_PATH], probe[MAX_PATH];
        bool whole = FormatBounded(reported, MAX_PATH, "%ls\\system32\\drivers\\%ls.sys", windowsDir, driver.c_str());
        // A 32-bit process on 64-bit Windows sees the real drivers folder
        // only through Sysnative; the file is reported under its System32
        // name, the name every other process knows it by.
        if (GetWow64Helper()->m_bIsWow64)
            whole = FormatBounded(probe, MAX_PATH, "%ls\\Sysnative\\drivers\\%ls.sys", windowsDir, driver.c_str()) &&
                    whole;
        else
            CopyBounded(probe, MAX_PATH, reported);
        // A name cut at the path limit would name another file: not probed.
        if (!whole || !PathFileExistsW(probe)) return ANALYZ_OK;
        ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
        if (!entry) return ANALYZ_NO_ENTRY;
        entry->hRootkey = pAnalizy->hRootkey;
        entry->subKey = RecordSubkey(pAnalizy);
        entry->filePath = reported;
        ExpandShortName(entry.get());
        PushNotifyEntry(std::move(entry));
        return ANALYZ_OK;
    }

    // 5.1 The service controller loads a service DLL only from the
    // service's Parameters key.
    if (EqualsNoCase(valueName, L"ServiceDll")) {
        const size_t sep = servicePart.find(L'\\');
        if (sep == std::wstring::npos || !EqualsNoCase(servicePart.substr(sep + 1), L"Parameters"))
            return ANALYZ_NOT_HANDLED;
    }
    // 5.2
    if (data.empty()) return ANALYZ_NOTHING;

    // 5.3
    ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = RecordSubkey(pAnalizy);
    entry->valueName = valueName;
    entry->valueData = data;

    // 5.4
    std::wstring commandLine = NormaliseImagePath(data, windowsDir);

    // 5.5 Rule 76 keeps its data unexpanded; a service DLL named without its
    // extension in an existing folder is the ".dll" of that name. The folder
    // is tested in its expanded form, the text keeps its tokens.
    if (pAnalizy->dsid == 76 && EqualsNoCase(valueName, L"ServiceDll") && !commandLine.empty()) {
        std::wstring expanded;
        ExpandPathString(commandLine, expanded, m_hToken, m_szSid, bWow64Expand);
        if (expanded.empty()) expanded = commandLine;
        wchar_t folder[MAX_PATH];
        CopyBounded(folder, MAX_PATH, expanded.c_str());
        const bool hasFolder = PathRemoveFileSpecW(folder) && folder[0] && PathIsDirectoryW(folder);
        if (hasFolder && !wcschr(PathFindFileNameW(commandLine.c_str()), L'.')) commandLine += L".dll";
    }

    // 5.6 ParseFillNotify answers 1 for success, 0 when a further entry
    // could not be made.
    return ParseFillNotify(commandLine, std::move(entry), false, nullptr, true) ? ANALYZ_OK : ANALYZ_NO_ENTRY;
}

}  // namespace kw
