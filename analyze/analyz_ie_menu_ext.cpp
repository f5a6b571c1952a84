// FunctionID 17: the browser's context-menu extensions. Each menu entry is a
// key below the user's menu-extension key whose default value names a
// resource address "res://<file>/<resource number>"; the file is the target.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"

namespace kw {

namespace {

const wchar_t kMenuExtKey[] = L"Software\\Microsoft\\Internet Explorer\\MenuExt";

// Drops a trailing "/<decimal digits>" (a resource number).
void DropResourceNumber(std::wstring& data) {
    const size_t slash = data.rfind(L'/');
    if (slash == std::wstring::npos || slash + 1 == data.size()) return;
    for (size_t i = slash + 1; i < data.size(); ++i)
        if (data[i] < L'0' || data[i] > L'9') return;
    data.resize(slash);
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzIEMenuExt(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    // The acting user's hive, or, without a SID, the hive of any ordinary
    // user (service accounts do not match "S-1-5-21-").
    wchar_t pattern[520];
    if (m_szSid[0])
        (void)FormatBounded(pattern, 520, "%ls\\%ls", m_szSid, kMenuExtKey);
    else
        (void)FormatBounded(pattern, 520, "S-1-5-21-*\\%ls", kMenuExtKey);
    if (!TestShortRegKeyPathName(pAnalizy, KW_HKEY_USERS, pattern, 1, nullptr)) return ANALYZ_NOT_HANDLED;

    std::wstring data = RecordDataText(pAnalizy);
    if (data.empty()) return ANALYZ_NOTHING;

    ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    entry->hRootkey = KW_HKEY_USERS;
    entry->subKey = RecordSubkey(pAnalizy);
    entry->valueName = RecordValueName(pAnalizy);
    entry->valueData = data;

    DropResourceNumber(data);
    // Any other address (a web page, a script URL) names no file on disk.
    if (StartsWithNoCase(data, L"res://"))
        ParseFillNotify(data.substr(6), std::move(entry), false, nullptr, false);
    return ANALYZ_OK;
}

}  // namespace kw
