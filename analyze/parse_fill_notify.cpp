// ParseFillNotify: a command line found by an analyzer becomes one result
// entry per file it would start or load.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"
#include "diag/log_writer.h"
#include "diag/trace.h"
#include "resolve/expand_path.h"
#include "resolve/script_host_rule_parser.h"

#include <new>

namespace kw {

uint32_t CAnalizyOperate::ParseFillNotify(const std::wstring& commandLine, ResultEntryPtr entry,
                                          bool freeWhenEmpty, const wchar_t* overridePath,
                                          bool scriptStep) {
    if (!entry) return 0;
    const uint32_t dsid = m_pCurrent ? m_pCurrent->dsid : entry->dsid;

    // 1. Expanded for the record's user and view.
    std::wstring text;
    ExpandPathString(commandLine, text, m_hToken, m_szSid, bWow64Expand);
    if (text.empty()) text = commandLine;

    // 2. The parser resolves in the 32-bit file-system view only for
    // Wow6432Node records (bWow64Parse 1); 2 is the native view.
    if (overridePath && *overridePath) m_parser.SetOverridePath(overridePath);
    m_parser.SetWow64Parse(bWow64Parse == 1 ? TRUE : FALSE);

    // 3.
    KW_INFO("CAnalizyOperate::ParseFillNotify", "ParseFillNotify: cmdline=%ls", text.c_str());
    FileLogIfOpen("AnalizyOperate", "CAnalizyOperate::ParseFillNotify", 2042, "ParseFillNotify: cmdline=%ls",
                  text.c_str());

    // 4. The script-host step: a script or document is replaced by the
    // command of its shell verb, whose files are added to those found.
    std::list<std::wstring> files;
    m_parser.Parse(text, m_hToken, m_szSid, bWow64Expand, files, dsid);
    if (scriptStep) {
        std::wstring scriptCmd = text;
        CScriptHostRuleParser script;
        script.SetWow64Parse(bWow64Parse == 1 ? TRUE : FALSE);
        script.SetFileTests(&m_fileTests);
        if (script.ExpandNoPECmdLine(scriptCmd, m_szSid, m_hToken, bWow64Expand, dsid) != 0 &&
            scriptCmd != text) {
            std::list<std::wstring> more;
            m_parser.Parse(scriptCmd, m_hToken, m_szSid, bWow64Expand, more, dsid);
            for (const auto& f : more) {
                bool known = false;
                for (const auto& g : files)
                    if (EqualsNoCase(f, g)) known = true;
                if (!known) files.push_back(f);
            }
            text = scriptCmd;
        }
    }
    m_parser.ClearOverridePath();

    // 6. Nothing resolved: the command text itself is the result, unless
    // the caller asked for the entry to be dropped.
    if (files.empty()) {
        if (freeWhenEmpty) return 1;
        entry->filePath = text;
        ExpandShortName(entry.get());
        return static_cast<uint32_t>(PushNotifyEntry(std::move(entry)));
    }

    // 5. and 7. The first file goes into the given entry, every further one
    // into a copy of it with the next sequence number.
    const ResultEntry templ = *entry;
    size_t index = 0;
    uint32_t ret = 1;
    // A shortcut found is replaced by what its target leads to; the target's
    // further files follow it, each in an entry of its own.
    auto pushExtra = [&](std::list<std::wstring>& extra) -> uint32_t {
        for (const std::wstring& file : extra) {
            ResultEntryPtr e = CopyEntry(templ);
            if (!e) return 0;
            e->filePath = file;
            ExpandShortName(e.get());
            if (PushNotifyEntry(std::move(e)) == 0) return 0;
        }
        return 1;
    };
    for (const std::wstring& file : files) {
        ResultEntryPtr e;
        if (index == 0) {
            e = std::move(entry);
            if (files.size() > 1)
                KW_INFO("CAnalizyOperate::ParseFillNotify", "ParseFillNotify:out file0=%ls", file.c_str());
        } else {
            e = CopyEntry(templ);
            if (!e) return 0;
            KW_INFO("CAnalizyOperate::ParseFillNotify", "ParseFillNotify:out file%u=%ls",
                    static_cast<unsigned>(index), file.c_str());
        }
        e->filePath = file;
        std::list<std::wstring> extra;
        ShortcutFollowUp(*e, extra);
        ExpandShortName(e.get());
        ret = static_cast<uint32_t>(PushNotifyEntry(std::move(e)));
        if (ret == 0) return 0;
        if (!extra.empty() && pushExtra(extra) == 0) return 0;
        ++index;
    }
    return ret;
}

}  // namespace kw
