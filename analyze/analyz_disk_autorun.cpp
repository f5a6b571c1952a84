// FunctionID 16: a written autorun file (szSubkey: its full path). The
// programs its "Autorun" and "AutoRun.alpha" sections would start are
// reported, relative paths resolved against the root of the file's drive.
#include "analyze/analizy_operate.h"

#include "common/strutil.h"

#include <vector>

namespace kw {

namespace {

constexpr DWORD kFirstSectionChars = 4097;
constexpr DWORD kMaxSectionChars = 65536;
constexpr size_t kLineChars = 1024;

// The command of one section line, or empty: the text after "Open=", else
// after "Shellexecute=", else after "command=" when "shell\" comes before it.
std::wstring LineCommand(const std::wstring& line) {
    for (const wchar_t* key : {L"Open=", L"Shellexecute="}) {
        const size_t at = FindNoCase(line, key);
        if (at != std::wstring::npos) return line.substr(at + wcslen(key));
    }
    const size_t shell = FindNoCase(line, L"shell\\");
    if (shell == std::wstring::npos) return std::wstring();
    const size_t command = FindNoCase(line, L"command=", shell + 6);
    return command == std::wstring::npos ? std::wstring() : line.substr(command + 8);
}

// Reports every distinct command of one section once. Reads at most what the
// first 4,096-character read returns (the system never fills the buffer's
// last two characters, so the growth step is never taken: a longer section is
// walked as far as it was read). Each line is cut to 1,023 characters.
void ReadAutorunSection(CAnalizyOperate& op, uint32_t dsid, const std::wstring& ini, const wchar_t* section) {
    DWORD limit = kFirstSectionChars;
    std::vector<wchar_t> buf(limit, L'\0');
    DWORD len = GetPrivateProfileSectionW(section, buf.data(), limit - 1, ini.c_str());
    while (len > limit && len <= kMaxSectionChars) {
        limit = len + 2;
        buf.assign(limit, L'\0');
        len = GetPrivateProfileSectionW(section, buf.data(), len + 1, ini.c_str());
    }
    if (len == 0 || len >= limit) return;

    const std::wstring root = FormatW("%lc:\\", static_cast<wint_t>(ini[0]));
    std::vector<std::wstring> seen;
    for (size_t pos = 0; pos < len && buf[pos];) {
        const size_t lineLen = LenBounded(&buf[pos], len - pos);
        wchar_t copy[kLineChars];
        CopyBounded(copy, kLineChars, &buf[pos], lineLen);
        pos += lineLen + 1;

        const std::wstring command = LineCommand(copy);
        if (command.empty()) continue;
        bool repeat = false;
        for (const auto& s : seen) repeat = repeat || s == command;
        if (repeat) continue;
        seen.push_back(command);

        ResultEntryPtr entry = op.CreateEntry(dsid);
        if (!entry) continue;
        entry->sourcePath = command;
        entry->valueData = ini;
        if (!op.ParseFillNotify(command, std::move(entry), false, root.c_str(), false)) return;
    }
}

}  // namespace

uint32_t CAnalizyOperate::AnalyzDiskAutorun(const ANALYZE_ITEM* pAnalizy, const std::wstring&) {
    if (!pAnalizy) return ANALYZ_OK;
    const std::wstring ini = RecordSubkey(pAnalizy);
    if (ini.empty()) return ANALYZ_OK;
    ReadAutorunSection(*this, pAnalizy->dsid, ini, L"Autorun");
    ReadAutorunSection(*this, pAnalizy->dsid, ini, L"AutoRun.alpha");
    return ANALYZ_OK;
}

}  // namespace kw
