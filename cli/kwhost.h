// kwhost: the command-line host. It drives kwdeepscan.dll only through its
// exports and interface slots, exactly as a host engine does (host_sim.h),
// and never through the plug-in's internals.
#pragma once
#include "host_sim.h"

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace kwhost {

// One rule of a rule file, as far as the host needs to know it to walk the
// registry: the plug-in itself reads the same text through Init.
struct ScanRule {
    int parseId = 0;
    int functionId = 0;
    int checkId = 0;
    uint32_t root = 0;  // 0x80000002 HKEY_LOCAL_MACHINE, 0x80000003 HKEY_USERS, 0 none
    std::wstring subkey;
    bool hasValueName = false;
    std::wstring valueName;
};

// Reads a rule file: its text (handed to the plug-in) and the rules (for
// the walk). False with a message for an unreadable file or text that is not
// a rule file.
bool LoadRuleFile(const std::wstring& path, std::string& text, std::vector<ScanRule>& rules,
                  std::string& error);
// The default rule set: autorun-rules.json beside the program or in
// ..\config or ..\..\config (the source tree's copy).
std::wstring DefaultRulePath();

// The analyzer's name for a FunctionID ("AnalyzServece"), "?" outside 1..22.
const char* AnalyzerName(int functionId);

std::string Utf8(const std::wstring& s);
std::wstring Wide(const std::string& s);

// One target as a report row.
struct Row {
    std::wstring location;  // key path as the monitor reports it, or a file path
    std::wstring value;     // value name; "(default)" for the unnamed value, "(key)" for a key event, "" for files
    int parseId = 0;        // 0 for file events
    int functionId = 0;     // 6 or 16 for file events
    std::wstring data;      // the registration's data
    std::wstring target;
    bool exists = false;
    std::wstring company, description, version;  // the target's version resource, when it has one
    std::wstring shortcutTarget;                 // what a .lnk target points to
    std::wstring identity;                       // the user the event was analysed as
};

enum class Format { Table, Csv, Json };

// Writes rows as the format asks; machine formats carry no decoration.
class Reporter {
public:
    Reporter(Format format, FILE* out) : m_format(format), m_out(out) {}
    void Add(Row row);   // csv and json rows are written at once; table rows at Flush
    void Flush();
    size_t Count() const { return m_count; }

private:
    Format m_format;
    FILE* m_out;
    bool m_header = false;
    size_t m_count = 0;
    std::vector<Row> m_table;
};

// Fills exists, version resource and shortcut target of a row (file-system
// redirection paused, so System32 means the 64-bit folder).
void DescribeTarget(Row& row);

struct ScanStats {
    size_t locations = 0;      // registry keys and files read
    size_t registrations = 0;  // events sent to the plug-in
    size_t targets = 0;
    size_t missing = 0;
    size_t rulesSkipped = 0;   // rules with no root key
};

struct ScanOptions {
    bool allUsers = false;   // also load the hives of profiles that are not loaded
    bool progress = true;    // progress line on standard error
    bool files = true;       // start-up folders and drive roots
};

// Walks what the rules name and sends each registration through the plug-in.
class Scanner {
public:
    Scanner(hostsim::PluginHost& host, const std::vector<ScanRule>& rules) : m_host(host), m_rules(rules) {}
    // Every rule, every start-up folder and drive root. Rows go to `sink`.
    ScanStats Run(const ScanOptions& options, void (*sink)(const Row&, void*), void* ctx);
    // Only the rules whose fixed key prefix lies under root\prefix, or only
    // the files of one folder.
    void ScanRules(const std::vector<size_t>& ruleIndexes, ScanStats& stats,
                   void (*sink)(const Row&, void*), void* ctx);
    void ScanFolder(const std::wstring& folder, ScanStats& stats, void (*sink)(const Row&, void*), void* ctx);

    // The start-up folders (common and per user) and the drives' roots.
    static std::vector<std::wstring> StartupFolders();
    static std::vector<std::wstring> DriveRoots();

    // Runs one event; rows for its targets.
    std::vector<std::wstring> PostRegistry(uint32_t op, const std::wstring& keyPath, const std::wstring* valueName,
                                           uint32_t type, const std::vector<uint8_t>& data, uint32_t pid,
                                           int parseId);
    std::vector<std::wstring> PostFile(uint32_t op, const std::wstring& path, const std::wstring& rename);

    // The process id to send for a key path, and how the row names it.
    uint32_t ProcessFor(const std::wstring& keyPath, std::wstring& identity);

private:
    void WalkRule(const ScanRule& rule, ScanStats& stats, void (*sink)(const Row&, void*), void* ctx);
    void ScanFile(const std::wstring& path, ScanStats& stats, void (*sink)(const Row&, void*), void* ctx);

    hostsim::PluginHost& m_host;
    const std::vector<ScanRule>& m_rules;
    std::map<std::wstring, uint32_t> m_pidBySid;
    bool m_pidMapBuilt = false;
    bool m_progress = false;
    size_t m_lastProgress = 0;
};

// The SID text of a process's user; empty when it cannot be read.
std::wstring SidOfProcess(HANDLE process);

// The concrete control-set name ("ControlSet001"): events carry it where
// rules say CurrentControlSet.
std::wstring CurrentControlSetName();

int CmdScan(int argc, wchar_t** argv);
int CmdReplay(int argc, wchar_t** argv);
int CmdWatch(int argc, wchar_t** argv);
int CmdDemo(int argc, wchar_t** argv);

// Loads and initialises the plug-in with a rule text; false with a message.
bool StartPlugin(hostsim::PluginHost& host, const std::string& ruleText);

}  // namespace kwhost
