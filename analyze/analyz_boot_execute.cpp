// FunctionID 13: the native programs the session manager runs before the
// subsystems start ("BootExecute", a multi-string). Only the programs that the
// change adds are reported, unless the report-existing switch is set; the
// list held before the change is read from the registry (64-bit view, where
// the system hive lives; a missing or unreadable value counts as empty).
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "registry/reg_util.h"

namespace kw {

uint32_t CAnalizyOperate::AnalyzBootExecute(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;

    // 1. An unreadable list counts as empty: every new string is then reported.
    std::wstring currentRaw;
    if (!RegReadMultiString(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Control\\Session Manager",
                            L"BootExecute", KEY_WOW64_64KEY, currentRaw))
        currentRaw.clear();
    const std::vector<std::wstring> current = SplitMultiString(currentRaw);

    // 2. At most the record's 1,024 data bytes, whatever size it claims; a
    // missing final NUL is tolerated.
    const uint32_t cb = pAnalizy->dwDataSize > kDataBytes ? kDataBytes : pAnalizy->dwDataSize;
    const std::wstring newRaw(reinterpret_cast<const wchar_t*>(pAnalizy->data), cb / sizeof(wchar_t));

    // 3.
    size_t produced = 0;
    for (const std::wstring& program : SplitMultiString(newRaw)) {
        if (!m_bReportExisting && ContainsNoCase(current, program)) continue;
        ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
        if (!entry) return ANALYZ_NO_ENTRY;
        entry->hRootkey = pAnalizy->hRootkey;
        entry->subKey = RecordSubkey(pAnalizy);
        entry->valueName = RecordValueName(pAnalizy);
        entry->valueData = program;
        // The checker's usual form ends in a lone '*' (all drives): not a file.
        wchar_t line[kExpandedValueCch];
        const size_t n = CopyBounded(line, kExpandedValueCch, program.c_str());
        if (n > 0 && line[n - 1] == L'*') line[n - 1] = L'\0';
        ParseFillNotify(line, std::move(entry), false, nullptr, false);
        ++produced;
    }

    // 4.
    return produced ? ANALYZ_OK : ANALYZ_NOTHING;
}

}  // namespace kw
