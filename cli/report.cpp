// Report rows: what the target is (exists, version resource, shortcut
// target) and the three output formats.
#include "kwhost.h"

#include <objbase.h>
#include <shlobj.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>

namespace kwhost {

namespace {

// Pauses file-system redirection for a scope, so that System32 names the
// 64-bit folder as it does for the programs the registrations start.
class RedirectionPause {
public:
    RedirectionPause() {
        using Fn = BOOL(WINAPI*)(PVOID*);
        auto fn = reinterpret_cast<Fn>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "Wow64DisableWow64FsRedirection")));
        m_paused = fn && fn(&m_old);
    }
    ~RedirectionPause() {
        using Fn = BOOL(WINAPI*)(PVOID);
        auto fn = reinterpret_cast<Fn>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "Wow64RevertWow64FsRedirection")));
        if (m_paused && fn) fn(m_old);
    }

private:
    PVOID m_old = nullptr;
    bool m_paused = false;
};

std::wstring VersionString(const std::vector<uint8_t>& block, const wchar_t* lang, const wchar_t* name) {
    std::wstring query = std::wstring(L"\\StringFileInfo\\") + lang + L"\\" + name;
    void* p = nullptr;
    UINT cch = 0;
    if (!VerQueryValueW(block.data(), query.c_str(), &p, &cch) || !p || cch == 0) return std::wstring();
    const wchar_t* s = static_cast<const wchar_t*>(p);
    return std::wstring(s, wcsnlen(s, cch));
}

std::wstring ShortcutTarget(const std::wstring& path) {
    std::wstring out;
    HRESULT init = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    IShellLinkW* link = nullptr;
    if (SUCCEEDED(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                   reinterpret_cast<void**>(&link)))) {
        IPersistFile* file = nullptr;
        if (SUCCEEDED(link->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&file)))) {
            wchar_t target[MAX_PATH] = {0};
            if (SUCCEEDED(file->Load(path.c_str(), STGM_READ)) &&
                SUCCEEDED(link->GetPath(target, MAX_PATH, nullptr, 0)))
                out = target;
            file->Release();
        }
        link->Release();
    }
    if (SUCCEEDED(init)) CoUninitialize();
    return out;
}

std::string CsvField(const std::wstring& w) {
    std::string s = Utf8(w);
    if (s.find_first_of(",\"\r\n") == std::string::npos) return s;
    std::string out = "\"";
    for (char c : s) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

std::wstring Cut(const std::wstring& s, size_t width) {
    return s.size() <= width ? s : s.substr(0, width - 3) + L"...";
}

}  // namespace

void DescribeTarget(Row& row) {
    RedirectionPause pause;
    const std::wstring& t = row.target;
    // A path on another machine is reported as it stands, never touched.
    const bool remote = t.size() > 2 && t[0] == L'\\' && t[1] == L'\\' && t[2] != L'?' && t[2] != L'.';
    if (remote) return;
    row.exists = GetFileAttributesW(t.c_str()) != INVALID_FILE_ATTRIBUTES;
    if (!row.exists) return;
    DWORD handle = 0;
    DWORD cb = GetFileVersionInfoSizeW(t.c_str(), &handle);
    if (cb) {
        std::vector<uint8_t> block(cb);
        if (GetFileVersionInfoW(t.c_str(), 0, cb, block.data())) {
            struct LangCp {
                WORD lang, cp;
            }* tr = nullptr;
            UINT n = 0;
            wchar_t lang[16] = L"040904b0";
            if (VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&tr), &n) &&
                tr && n >= sizeof(LangCp))
                swprintf(lang, 16, L"%04x%04x", tr->lang, tr->cp);
            row.company = VersionString(block, lang, L"CompanyName");
            row.description = VersionString(block, lang, L"FileDescription");
            row.version = VersionString(block, lang, L"FileVersion");
        }
    }
    const wchar_t* dot = wcsrchr(t.c_str(), L'.');
    if (dot && _wcsicmp(dot, L".lnk") == 0) row.shortcutTarget = ShortcutTarget(t);
}

void Reporter::Add(Row row) {
    ++m_count;
    if (m_format == Format::Table) {
        m_table.push_back(std::move(row));
        return;
    }
    if (m_format == Format::Csv) {
        if (!m_header) {
            fputs("location,value,rule,function_id,analyzer,data,target,exists,company,description,version,"
                  "shortcut_target,identity\n",
                  m_out);
            m_header = true;
        }
        std::string line = CsvField(row.location) + "," + CsvField(row.value) + "," + std::to_string(row.parseId) +
                           "," + std::to_string(row.functionId) + "," + AnalyzerName(row.functionId) + "," +
                           CsvField(row.data) + "," + CsvField(row.target) + "," + (row.exists ? "yes" : "no") +
                           "," + CsvField(row.company) + "," + CsvField(row.description) + "," +
                           CsvField(row.version) + "," + CsvField(row.shortcutTarget) + "," +
                           CsvField(row.identity) + "\n";
        fputs(line.c_str(), m_out);
        return;
    }
    rapidjson::StringBuffer buf;
    rapidjson::Writer<rapidjson::StringBuffer> w(buf);
    auto str = [&](const char* k, const std::wstring& v) {
        w.Key(k);
        std::string u = Utf8(v);
        w.String(u.c_str(), static_cast<rapidjson::SizeType>(u.size()));
    };
    w.StartObject();
    str("location", row.location);
    str("value", row.value);
    w.Key("rule");
    w.Int(row.parseId);
    w.Key("functionId");
    w.Int(row.functionId);
    w.Key("analyzer");
    w.String(AnalyzerName(row.functionId));
    str("data", row.data);
    str("target", row.target);
    w.Key("exists");
    w.Bool(row.exists);
    str("company", row.company);
    str("description", row.description);
    str("version", row.version);
    str("shortcutTarget", row.shortcutTarget);
    str("identity", row.identity);
    w.EndObject();
    fputs(buf.GetString(), m_out);
    fputc('\n', m_out);
}

void Reporter::Flush() {
    if (m_format != Format::Table) {
        fflush(m_out);
        return;
    }
    // Aligned columns; a cell longer than its column's cap is cut with "...".
    struct Col {
        const wchar_t* title;
        size_t cap;
    };
    const Col cols[] = {{L"EXISTS", 6},    {L"TARGET", 70},  {L"RULE", 6},         {L"ANALYZER", 44},
                        {L"LOCATION", 80}, {L"VALUE", 24},   {L"DATA", 60},        {L"COMPANY", 24},
                        {L"DESCRIPTION", 32}, {L"VERSION", 18}, {L"SHORTCUT TARGET", 50}, {L"AS", 40}};
    const size_t n = sizeof(cols) / sizeof(cols[0]);
    std::vector<std::vector<std::wstring>> cells;
    cells.push_back({});
    for (const Col& c : cols) cells.back().push_back(c.title);
    for (const Row& r : m_table)
        cells.push_back({r.exists ? L"yes" : L"no", r.target, r.parseId ? std::to_wstring(r.parseId) : L"file",
                         Wide(AnalyzerName(r.functionId)) + L"(" + std::to_wstring(r.functionId) + L")", r.location,
                         r.value, r.data, r.company, r.description, r.version, r.shortcutTarget, r.identity});
    std::vector<size_t> width(n, 0);
    for (auto& line : cells)
        for (size_t i = 0; i < n; ++i) {
            line[i] = Cut(line[i], cols[i].cap);
            width[i] = std::max(width[i], line[i].size());
        }
    for (const auto& line : cells) {
        std::wstring out;
        for (size_t i = 0; i < n; ++i) {
            out += line[i];
            if (i + 1 < n) out += std::wstring(width[i] - line[i].size() + 2, L' ');
        }
        while (!out.empty() && out.back() == L' ') out.pop_back();
        fprintf(m_out, "%s\n", Utf8(out).c_str());
    }
    fflush(m_out);
    m_table.clear();
}

}  // namespace kwhost
