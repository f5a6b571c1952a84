// FunctionID 21: the known-DLL list. A value written to the KnownDlls key of
// the current control set names a DLL that the loader maps from the known-DLL
// directory; that file is reported. The directory values themselves are not
// DLLs and are refused.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "diag/trace.h"
#include "registry/reg_util.h"
#include "resolve/expand_path.h"
#include "resolve/wow64.h"

#include <shlwapi.h>

namespace kw {

namespace {

const char kKnownDlls[] = "CAnalizyOperate::AnalyzKnownDlls";
constexpr size_t kDllDirectoryCch = 522;  // buffer, terminator included
constexpr size_t kJoinedCch = 1040;       // buffer, terminator included

}  // namespace

uint32_t CAnalizyOperate::AnalyzKnownDlls(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;

    // 1. and 2. Exactly the key of the current control set: neither a key
    // below it nor another control set's copy.
    const std::wstring keyPath =
        std::wstring(L"System\\") + GetCurrentControlSetName() + L"\\Control\\Session Manager\\KnownDlls";
    if (pAnalizy->hRootkey != KW_HKEY_LOCAL_MACHINE || !EqualsNoCase(RecordSubkey(pAnalizy), keyPath))
        return ANALYZ_NOT_HANDLED;

    // 3. The directory values.
    const bool wow64 = GetWow64Helper()->m_bIsWow64 != 0;
    const std::wstring valueName = RecordValueName(pAnalizy);
    if (EqualsNoCase(valueName, L"DllDirectory") || (wow64 && EqualsNoCase(valueName, L"DllDirectory32")))
        return ANALYZ_NOT_HANDLED;

    // 4. The directory the loader maps known DLLs of this process's bitness
    // from, read from the 64-bit view where the system hive lives.
    const wchar_t* dirValue = wow64 ? L"DllDirectory32" : L"DllDirectory";
    std::wstring raw;
    DWORD type = REG_NONE;
    if (!RegReadRawText(HKEY_LOCAL_MACHINE, keyPath.c_str(), dirValue, KEY_WOW64_64KEY, &type, raw) ||
        (type != REG_SZ && type != REG_EXPAND_SZ)) {
        KW_ERROR(kKnownDlls, "%ls unreadable (type=%lu)", dirValue, static_cast<unsigned long>(type));
        return ANALYZ_NOTHING;
    }
    wchar_t dirBuf[kDllDirectoryCch];
    CopyBounded(dirBuf, kDllDirectoryCch, raw.c_str(), raw.size());
    StrTrimW(dirBuf, L" \t\r\n");
    std::wstring directory;
    ExpandPathString(dirBuf, directory, m_hToken, m_szSid, bWow64Expand);
    if (directory.empty()) directory = dirBuf;

    // 5.
    ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    const std::wstring dll = RecordDataText(pAnalizy);
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = RecordSubkey(pAnalizy);
    entry->valueName = valueName;
    entry->valueData = dll;

    // 6. The name as written, else with ".dll" when it has no extension;
    // neither existing: the name as written.
    wchar_t joined[kJoinedCch];
    FormatBounded(joined, kJoinedCch, "%ls\\%ls", directory.c_str(), dll.c_str());
    entry->filePath = joined;
    if (!PathFileExistsW(joined) && dll.find(L'.') == std::wstring::npos) {
        const std::wstring withExtension = entry->filePath + L".dll";
        if (PathFileExistsW(withExtension.c_str())) entry->filePath = withExtension;
    }

    // 7.
    ExpandShortName(entry.get());
    PushNotifyEntry(std::move(entry));
    return ANALYZ_OK;
}

}  // namespace kw
