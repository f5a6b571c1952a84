// The analysis object: one is made for each analysed registry event. It
// checks the analysis record against its rule, runs the analyzer that the
// rule's FunctionID names and collects the files found as result entries.
//
// Per-record context (reset by every AnalyzItem): the acting process's handle,
// token and SID text, and three view flags:
//   bNativeView  - 1 when the changed key lies in the native registry view,
//                  0 under Wow6432Node;
//   bWow64Parse  - 1 when command lines are resolved in the 32-bit
//                  file-system view, 2 for the native view;
//   bWow64Expand - passed to path expansion as the 32-bit-view switch.
#pragma once
#include "analyze/analysis_record.h"
#include "analyze/result_entry.h"
#include "common/handle.h"
#include "registry/user_sid.h"
#include "resolve/parse_command_line.h"
#include "rules/reg_rule.h"

#include <windows.h>

#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kw {

class CEasyClsid;

// Analyzer result codes.
enum : uint32_t {
    ANALYZ_OK = 0,
    ANALYZ_NO_ENTRY = 1,       // entry not created, or rule parameter missing
    ANALYZ_BAD_FUNCTION = 2,   // FunctionID out of range
    ANALYZ_NOT_HANDLED = 3,    // record not of a kind the analyzer handles, or path mismatch
    ANALYZ_NOTHING = 4,        // nothing to analyse
};

class CAnalizyOperate {
public:
    CAnalizyOperate() noexcept;
    virtual ~CAnalizyOperate() = default;
    CAnalizyOperate(const CAnalizyOperate&) = delete;
    CAnalizyOperate& operator=(const CAnalizyOperate&) = delete;

    // First call on this object: opens the process's file log (false when it
    // cannot be created) and writes "[regscan] Autorun Init Success" to it.
    // Later calls return true at once.
    bool Init() noexcept;

    // Parses the rule text into ruleTable and traces "[regscan] LoadParseRules
    // Success" or "[regscan] LoadParseRules Fail,%d". Always true: a bad rule
    // text leaves the engine running with whatever rules were valid.
    static bool LoadParseRules(RuleTable& ruleTable, const std::string& ruleText) noexcept;

    // Checks the record against the rule, dispatches to its analyzer and puts
    // the upper-cased paths found into resultSet. Returns the analyzer codes
    // above (3 for a rejected record or a path mismatch).
    uint32_t AnalyzItem(ANALYZE_ITEM* pAnalizy, std::set<std::wstring>& resultSet,
                        const RegRule& rule) noexcept;

    // A record filled from a file event (szSubkey: the written file's full
    // path, the process id of the writer) run through one analyzer without a
    // rule: the acting user's context is prepared as for a registry record and
    // the upper-cased paths found go into resultSet. Returns the analyzer's code.
    uint32_t AnalyzFileItem(ANALYZE_ITEM* pAnalizy, int functionId,
                            std::set<std::wstring>& resultSet) noexcept;

    bool RegPathMatch(const ANALYZE_ITEM* pAnalizy, const RegRule& rule);
    bool TestRegKeyPathName(const ANALYZE_ITEM* pAnalizy, uint32_t hKey, const std::wstring& pattern,
                            const wchar_t* valueName);
    bool TestShortRegKeyPathName(const ANALYZE_ITEM* pAnalizy, uint32_t hKey,
                                 const std::wstring& pattern, size_t levels,
                                 const wchar_t* valueName);

    // Runs the analyzer of the rule's FunctionID through the analyzer table
    // (analyze/analyzer_table.h): 2 outside 1..22, 1 when a required
    // Parameter1 is empty, otherwise the analyzer's own code.
    uint32_t HandOutRegParse(const ANALYZE_ITEM* pAnalizy, const RegRule& rule);
    // Writes the analyzer's start line and runs it (3 for an analyzer not yet
    // built). Analyzers that hand a record on to another one call this.
    uint32_t RunAnalyzer(int functionId, const ANALYZE_ITEM* pAnalizy, const std::wstring& param);

    // Resolves a command line into files and pushes one entry per file (1
    // success, 0 failure). Takes ownership of `entry`.
    uint32_t ParseFillNotify(const std::wstring& commandLine, ResultEntryPtr entry,
                             bool freeWhenEmpty, const wchar_t* overridePath, bool scriptStep);

    // Shared result steps.
    ResultEntryPtr CreateEntry(uint32_t dsid);
    // A copy of `templ` with the next sequence number, for each further file
    // an entry yields; null when memory is exhausted.
    ResultEntryPtr CopyEntry(const ResultEntry& templ);
    uint32_t FillServerEntries(ResultEntryPtr entry, const CEasyClsid& lookup);
    int ExpandShortName(ResultEntry* entry);
    int PushNotifyEntry(ResultEntryPtr entry);
    // One entry for a piece of the record's data (root key, sub-key, value
    // name and the piece set) handed to ParseFillNotify. False only when the
    // entry cannot be allocated.
    [[nodiscard]] bool ReportPiece(const ANALYZE_ITEM* pAnalizy, const std::wstring& piece, bool scriptStep);
    // Looks the class up (CEasyClsid: the record user's classes, then the
    // machine's, in the Wow6432Node view when bNativeView is 0) and hands
    // each server command line to the result machinery through
    // FillServerEntries; a class without a server pushes `entry` as it is, a
    // location-only result. Takes ownership of `entry`; 1 success, 0 failure.
    uint32_t ResolveClsidAndPush(ResultEntryPtr entry, const std::wstring& clsid);
    // The second pass of the CLSID analyzers on a 64-bit system: with the
    // view flags switched to the 32-bit registry and file-system views (and
    // restored on every way out), one more entry (root key and sub-key of the
    // record) is resolved and pushed. With `onlyWithServer` a probe lookup
    // first checks that the 32-bit view has a server, and nothing is done
    // without one. 0 done (or nothing to do), 1 when the entry cannot be made.
    uint32_t ResolveClsidInWow32View(const ANALYZE_ITEM* pAnalizy, const std::wstring& clsid,
                                     bool onlyWithServer);

    // The analyzers, one per FunctionID, each in its own file under analyze/
    // and reached through its row of the analyzer table. `param` is the
    // rule's Parameter1 for the analyzers that need it, empty for the others.
    // Each returns the result codes above.
    uint32_t AnalyzRegvalueSpliteAsFilePathByCharset(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);  // 1
    uint32_t AnalyzInsatlledComponents(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);   // 2
    uint32_t AnalyzSystemScripts(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);         // 3
    uint32_t AnalyzRegValueAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);       // 4
    uint32_t AnalyzRegvalueAsFilePath(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);    // 5
    uint32_t AnalyzLinkFiles(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);             // 6
    uint32_t AnalyzValueNameAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);      // 7
    uint32_t AnalyzKeyOrDefValueAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);  // 8
    uint32_t AnalyzKeyOrDefValueAsCLSIDJudgeWow64(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);  // 9
    uint32_t AnalyzSubKeyAsCLSID(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);         // 10
    uint32_t AnalyzSubKeyAsCLSIDJudgeWow64(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);  // 11
    uint32_t AnalyzServece(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);               // 12
    uint32_t AnalyzBootExecute(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);           // 13
    uint32_t AnalyzMulitRegValueAsFilePath(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);  // 14
    uint32_t AnalyzFileLink(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);              // 15
    uint32_t AnalyzDiskAutorun(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);           // 16
    uint32_t AnalyzIEMenuExt(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);             // 17
    uint32_t AnalyzFileAssociation(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);       // 18
    uint32_t AnalyzRegvalueSpliteAsFilePathByVLine(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);  // 19
    uint32_t AnalyzRegvalueNameAsFilePath(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);  // 20
    uint32_t AnalyzKnownDlls(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);             // 21
    uint32_t AnalyzIEExtensions(const ANALYZE_ITEM* pAnalizy, const std::wstring& param);          // 22
    // The worker of AnalyzServece: valueMode 1 for a value write ("ImagePath"
    // or "ServiceDll"), 0 for a created or changed service key.
    uint32_t AnalyzServiceFilePath(const ANALYZE_ITEM* pAnalizy, int valueMode);

    // The registry access flags of the record's view: nothing on a 32-bit
    // system; on a 64-bit one the 64-bit view flag when bNativeView is set,
    // plus the high bit when bWow64Expand is set.
    REGSAM RecordViewAccess() const noexcept;

    const std::list<ResultEntry>& Results() const noexcept { return m_results; }
    const wchar_t* Sid() const noexcept { return m_szSid; }

    BOOL bNativeView = 1;
    BOOL bWow64Parse = 2;
    BOOL bWow64Expand = 0;
    bool m_bKeepDirectories = false;  // keep results that name a directory
    bool m_bReportAll = false;        // report every piece, not only new ones
    bool m_bReportExisting = false;   // boot-execute: report entries already present

protected:
    // The start of every record's analysis: the view flags of the native view,
    // the acting process's user (handles, token and SID text), the current
    // record. EndRecord releases the user context again.
    void BeginRecord(ANALYZE_ITEM* pAnalizy);
    void EndRecord() noexcept;
    void ReleaseUserContext() noexcept;
    // The files a shortcut's target leads to: the quoted target (joined with
    // the third text on a 64-bit system) parsed with the folder of `pathInFolder`
    // (its text before the last '\') as the current folder, and parsed once
    // more after expansion when nothing was found.
    void ParseShortcutTarget(const std::wstring& target, const std::wstring& third,
                             const std::wstring& pathInFolder, std::list<std::wstring>& files);
    // The shortcut step of ParseFillNotify: an entry naming a shortcut with a
    // target takes the target's first file; further files go to `extra`.
    void ShortcutFollowUp(ResultEntry& entry, std::list<std::wstring>& extra);

    BOOL m_bInit = FALSE;
    uint32_t m_nEntryCounter = 1;
    std::list<ResultEntry> m_results;
    const ANALYZE_ITEM* m_pCurrent = nullptr;  // the record being analysed

    // The acting process's user, held until AnalyzItem releases it (or this
    // object's destructor, on the paths that return early); m_hToken is its
    // token, or null when the process's user could not be read.
    std::shared_ptr<const ProcessUser> m_user;
    HANDLE m_hToken = nullptr;
    wchar_t m_szSid[MAX_PATH] = {0};

    CParseComandLine m_parser;
    FileTestMemo m_fileTests;  // of the record being analysed, shared by its parses
};

// The wide text held in a record's data field (at most 512 characters; the
// field's last four bytes are zero once AnalyzItem has prepared the record).
std::wstring RecordDataText(const ANALYZE_ITEM* pAnalizy);
// The record's sub-key and value name, read within their fields.
std::wstring RecordSubkey(const ANALYZE_ITEM* pAnalizy);
std::wstring RecordValueName(const ANALYZE_ITEM* pAnalizy);

}  // namespace kw
