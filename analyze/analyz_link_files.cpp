// FunctionID 6: a written file, usually a shortcut placed where the system
// starts it. A shortcut yields what it starts; any other file yields itself.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "resolve/expand_path.h"
#include "resolve/parse_shortcut.h"
#include "resolve/wow64.h"

#include <shlwapi.h>

namespace kw {

void CAnalizyOperate::ParseShortcutTarget(const std::wstring& target, const std::wstring& third,
                                          const std::wstring& pathInFolder,
                                          std::list<std::wstring>& files) {
    const size_t slash = pathInFolder.rfind(L'\\');
    const std::wstring folder = slash == std::wstring::npos ? std::wstring() : pathInFolder.substr(0, slash);
    std::wstring cmd = QuotePath(target, false);
    // The third text belongs to the command only on a 64-bit system.
    if (GetWow64Helper()->m_bIsWow64 && !third.empty()) cmd = FormatW("%ls %ls", cmd.c_str(), third.c_str());
    const uint32_t dsid = m_pCurrent ? m_pCurrent->dsid : 0;
    if (!folder.empty()) m_parser.SetOverridePath(folder);
    m_parser.SetWow64Parse(bWow64Parse == 1 ? TRUE : FALSE);
    m_parser.Parse(cmd, m_hToken, m_szSid, bWow64Expand, files, dsid);
    if (files.empty()) {
        std::wstring expanded;
        ExpandPathString(cmd, expanded, m_hToken, m_szSid, bWow64Expand);
        if (!expanded.empty() && expanded != cmd)
            m_parser.Parse(expanded, m_hToken, m_szSid, bWow64Expand, files, dsid);
    }
    m_parser.ClearOverridePath();
}

void CAnalizyOperate::ShortcutFollowUp(ResultEntry& entry, std::list<std::wstring>& extra) {
    if (!EqualsNoCase(PathFindExtensionW(entry.filePath.c_str()), L".lnk")) return;
    std::wstring strPath, strParam, strThird;
    // A shortcut without a target (this release reads none) stays the file found.
    if (!ResolveShortcutFile(entry.filePath, strPath, strParam, strThird) || strPath.empty()) return;
    std::list<std::wstring> files;
    // Relative targets resolve against the folder of the entry's source, or
    // of the shortcut itself for an entry found in registry data.
    ParseShortcutTarget(strPath, strThird, entry.sourcePath.empty() ? entry.filePath : entry.sourcePath,
                        files);
    if (files.empty()) {
        entry.filePath = strPath;
        return;
    }
    entry.filePath = files.front();
    files.pop_front();
    extra.splice(extra.end(), files);
}

uint32_t CAnalizyOperate::AnalyzLinkFiles(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_NOT_HANDLED;
    const std::wstring path = RecordSubkey(pAnalizy);
    if (path.empty()) return ANALYZ_NOT_HANDLED;

    ResultEntryPtr entry = CreateEntry(pAnalizy->dsid);
    if (!entry) return ANALYZ_NO_ENTRY;
    entry->sourcePath = path;

    if (!EqualsNoCase(PathFindExtensionW(path.c_str()), L".lnk")) {
        entry->filePath = path;
        ExpandShortName(entry.get());
        PushNotifyEntry(std::move(entry));
        return ANALYZ_OK;
    }

    std::wstring strPath, strParam, strThird;
    std::list<std::wstring> further;
    ResolveShortcutFile(path, strPath, strParam, strThird, &further, nullptr);
    const bool emptyTarget = strPath.empty();
    if (emptyTarget) {
        entry->filePath = path;
    } else {
        // Relative targets are resolved against the shortcut's own folder.
        std::list<std::wstring> files;
        ParseShortcutTarget(strPath, strThird, path, files);
        entry->filePath = files.empty() ? strPath : files.front();
    }
    ExpandShortName(entry.get());
    PushNotifyEntry(std::move(entry));

    bool first = true;
    for (const std::wstring& more : further) {
        const bool keepUnparsed = first && emptyTarget;
        first = false;
        ResultEntryPtr e = CreateEntry(pAnalizy->dsid);
        if (!e) return ANALYZ_NO_ENTRY;
        e->sourcePath = path;
        std::list<std::wstring> files;
        m_parser.SetWow64Parse(bWow64Parse == 1 ? TRUE : FALSE);
        m_parser.Parse(QuotePath(more, !keepUnparsed), m_hToken, m_szSid, bWow64Expand, files,
                       pAnalizy->dsid);
        if (files.empty() && !keepUnparsed) continue;  // the entry is discarded
        e->filePath = files.empty() ? more : files.front();
        ExpandShortName(e.get());
        PushNotifyEntry(std::move(e));
    }

    if (!strParam.empty()) {
        // Files named in the shortcut's arguments are reported too; arguments
        // that name none add nothing.
        ResultEntryPtr e = CreateEntry(pAnalizy->dsid);
        if (!e) return ANALYZ_NO_ENTRY;
        e->sourcePath = path;
        ParseFillNotify(strParam, std::move(e), true, nullptr, false);
    }
    return ANALYZ_OK;
}

}  // namespace kw
