// The result steps every analyzer shares: creating an entry, fanning out the
// servers of a CLSID, the long-name repair and the filtered push onto the
// result list.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "common/sys_text.h"
#include "registry/easy_clsid.h"
#include "resolve/parse_file_view.h"
#include "resolve/wow64.h"

#include <shlwapi.h>

#include <new>

namespace kw {

ResultEntryPtr CAnalizyOperate::CopyEntry(const ResultEntry& templ) {
    ResultEntryPtr entry(new (std::nothrow) ResultEntry(templ));
    if (entry) entry->seq = m_nEntryCounter++;
    return entry;
}

ResultEntryPtr CAnalizyOperate::CreateEntry(uint32_t dsid) {
    ResultEntryPtr entry(new (std::nothrow) ResultEntry());
    if (!entry) return entry;
    entry->seq = m_nEntryCounter++;
    entry->dsid = dsid;
    return entry;
}

uint32_t CAnalizyOperate::FillServerEntries(ResultEntryPtr entry, const CEasyClsid& lookup) {
    const auto& servers = lookup.Servers();
    if (!entry || servers.empty()) return 0;
    if (servers.size() == 1)
        return ParseFillNotify(servers.front().path, std::move(entry), false, nullptr, false);

    const ResultEntry templ = *entry;
    uint32_t ret = 0;
    bool first = true;
    for (const ClsidServer& server : servers) {
        ResultEntryPtr e;
        if (first) {
            e = std::move(entry);
            first = false;
        } else {
            e = CopyEntry(templ);
            if (!e) return 0;
        }
        ret = ParseFillNotify(server.path, std::move(e), false, nullptr, false);
        if (ret == 0) break;
    }
    return ret;
}

bool CAnalizyOperate::ReportPiece(const ANALYZE_ITEM* pAnalizy, const std::wstring& piece, bool scriptStep) {
    ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
    if (!entry) return false;
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = RecordSubkey(pAnalizy);
    entry->valueName = RecordValueName(pAnalizy);
    entry->valueData = piece;
    ParseFillNotify(piece, std::move(entry), false, nullptr, scriptStep);
    return true;
}

uint32_t CAnalizyOperate::ResolveClsidAndPush(ResultEntryPtr entry, const std::wstring& clsid) {
    if (!entry) return 0;
    CEasyClsid lookup(m_szSid, clsid.c_str(), bNativeView ? FALSE : TRUE);
    if (!lookup.Servers().empty()) return FillServerEntries(std::move(entry), lookup);
    // No server: the registry location itself is the result.
    ExpandShortName(entry.get());
    return static_cast<uint32_t>(PushNotifyEntry(std::move(entry)));
}

namespace {

// Switches a record's view flags to the 32-bit registry view and the 32-bit
// file-system view for the life of the object; the saved flags come back on
// every way out of the scope.
class CWow32ViewScope {
public:
    explicit CWow32ViewScope(CAnalizyOperate& op) noexcept
        : m_op(op), m_native(op.bNativeView), m_parse(op.bWow64Parse), m_expand(op.bWow64Expand) {
        op.bWow64Parse = 1;
        op.bNativeView = 0;
        op.bWow64Expand = 1;
    }
    ~CWow32ViewScope() {
        m_op.bNativeView = m_native;
        m_op.bWow64Parse = m_parse;
        m_op.bWow64Expand = m_expand;
    }
    CWow32ViewScope(const CWow32ViewScope&) = delete;
    CWow32ViewScope& operator=(const CWow32ViewScope&) = delete;

private:
    CAnalizyOperate& m_op;
    BOOL m_native, m_parse, m_expand;
};

}  // namespace

uint32_t CAnalizyOperate::ResolveClsidInWow32View(const ANALYZE_ITEM* pAnalizy, const std::wstring& clsid,
                                                  bool onlyWithServer) {
    if (!pAnalizy || !GetWow64Helper()->m_bIsWow64) return ANALYZ_OK;
    CWow32ViewScope view(*this);
    if (onlyWithServer) {
        CEasyClsid probe(m_szSid, clsid.c_str(), TRUE);
        if (probe.Servers().empty()) return ANALYZ_OK;
    }
    ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    entry->hRootkey = pAnalizy->hRootkey;
    entry->subKey = RecordSubkey(pAnalizy);
    ResolveClsidAndPush(std::move(entry), clsid);
    return ANALYZ_OK;
}

int CAnalizyOperate::ExpandShortName(ResultEntry* entry) {
    // Another machine's path is reported as written: no call may wait on the network.
    if (!entry || entry->filePath.find(L'~') == std::wstring::npos || IsRemotePath(entry->filePath))
        return 1;
    std::wstring longPath;
    // A long form of 512 characters or more is not taken.
    if (GetLongPathText(entry->filePath.c_str(), longPath) && !longPath.empty() &&
        longPath.size() < 512)
        entry->filePath.swap(longPath);
    return 1;
}

int CAnalizyOperate::PushNotifyEntry(ResultEntryPtr entry) {
    if (!entry) return 1;
    // A folder is no target; another machine's path is not tested (the host
    // decides what to do with it), so that no push waits on the network.
    if (!m_bKeepDirectories && !entry->filePath.empty() && !IsRemotePath(entry->filePath)) {
        // The parse of this record has mostly tested the path already.
        bool folder = false;
        if (!m_fileTests.KnownFolder(entry->filePath, &folder)) folder = PathIsDirectoryW(entry->filePath.c_str()) != FALSE;
        if (folder) return 1;
    }
    if (GetWow64Helper()->m_bIsWow64 && !entry->filePath.empty()) {
        wchar_t sysnative[MAX_PATH] = {0};
        if (GetSystemWindowsDirectoryW(sysnative, MAX_PATH) &&
            PathAppendW(sysnative, L"sysnative\\") && StartsWithNoCase(entry->filePath, sysnative))
            return 1;
    }
    m_results.push_back(std::move(*entry));
    return 1;
}

}  // namespace kw
