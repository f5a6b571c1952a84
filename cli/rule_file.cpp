// Rule files, as the host reads them to know where to walk.
#include "kwhost.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <fstream>
#include <sstream>

namespace kwhost {

std::string Utf8(const std::wstring& s) {
    if (s.empty()) return std::string();
    int n = WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0, nullptr, nullptr);
    std::string out(n > 0 ? n : 0, '\0');
    if (n > 0) WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &out[0], n, nullptr, nullptr);
    return out;
}

std::wstring Wide(const std::string& s) {
    if (s.empty()) return std::wstring();
    int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring out(n > 0 ? n : 0, L'\0');
    if (n > 0) MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &out[0], n);
    return out;
}

const char* AnalyzerName(int id) {
    static const char* const kNames[] = {
        "AnalyzRegvalueSpliteAsFilePathByCharset", "AnalyzInsatlledComponents", "AnalyzSystemScripts",
        "AnalyzRegValueAsCLSID", "AnalyzRegvalueAsFilePath", "AnalyzLinkFiles", "AnalyzValueNameAsCLSID",
        "AnalyzKeyOrDefValueAsCLSID", "AnalyzKeyOrDefValueAsCLSIDJudgeWow64", "AnalyzSubKeyAsCLSID",
        "AnalyzSubKeyAsCLSIDJudgeWow64", "AnalyzServece", "AnalyzBootExecute", "AnalyzMulitRegValueAsFilePath",
        "AnalyzFileLink", "AnalyzDiskAutorun", "AnalyzIEMenuExt", "AnalyzFileAssociation",
        "AnalyzRegvalueSpliteAsFilePathByVLine", "AnalyzRegvalueNameAsFilePath", "AnalyzKnownDlls",
        "AnalyzIEExtensions"};
    return id >= 1 && id <= 22 ? kNames[id - 1] : "?";
}

bool LoadRuleFile(const std::wstring& path, std::string& text, std::vector<ScanRule>& rules, std::string& error) {
    rules.clear();
    std::ifstream in(path.c_str(), std::ios::binary);
    if (!in) {
        error = "cannot read the rule file " + Utf8(path);
        return false;
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    text = ss.str();
    rapidjson::Document doc;
    doc.Parse(text.c_str(), text.size());
    if (doc.HasParseError()) {
        error = "the rule file " + Utf8(path) + " is not JSON: " + rapidjson::GetParseError_En(doc.GetParseError()) +
                " at byte " + std::to_string(doc.GetErrorOffset());
        return false;
    }
    if (!doc.IsObject() || !doc.HasMember("RegParseConfig") || !doc["RegParseConfig"].IsArray()) {
        error = "the rule file " + Utf8(path) + " has no \"RegParseConfig\" array";
        return false;
    }
    for (const auto& r : doc["RegParseConfig"].GetArray()) {
        if (!r.IsObject()) continue;
        ScanRule rule;
        auto num = [&](const char* name) -> int64_t {
            auto it = r.FindMember(name);
            return it != r.MemberEnd() && it->value.IsInt64() ? it->value.GetInt64() : 0;
        };
        auto str = [&](const char* name, bool* given) -> std::wstring {
            auto it = r.FindMember(name);
            if (it == r.MemberEnd() || !it->value.IsString()) return std::wstring();
            if (given) *given = true;
            return Wide(std::string(it->value.GetString(), it->value.GetStringLength()));
        };
        rule.parseId = static_cast<int>(num("ParseID"));
        rule.functionId = static_cast<int>(num("FunctionID"));
        rule.checkId = static_cast<int>(num("CheckID"));
        rule.root = static_cast<uint32_t>(num("RegRootkey"));
        rule.subkey = str("RegSubkey", nullptr);
        rule.valueName = str("RegValueName", &rule.hasValueName);
        rules.push_back(rule);
    }
    return true;
}

std::wstring DefaultRulePath() {
    const std::wstring dir = hostsim::ProgramDir();
    for (const wchar_t* rel : {L"autorun-rules.json", L"..\\config\\autorun-rules.json",
                               L"..\\..\\config\\autorun-rules.json"}) {
        std::wstring p = dir + rel;
        if (GetFileAttributesW(p.c_str()) != INVALID_FILE_ATTRIBUTES) return p;
    }
    return dir + L"autorun-rules.json";
}

bool StartPlugin(hostsim::PluginHost& host, const std::string& ruleText) {
    if (!host.Load()) {
        fprintf(stderr, "kwhost: cannot load kwdeepscan.dll or its exports (error %lu)\n", GetLastError());
        return false;
    }
    if (!host.Create()) {
        fprintf(stderr, "kwhost: CreatePlugObjectV2 refused\n");
        return false;
    }
    if (!host.Init(ruleText)) {
        fprintf(stderr, "kwhost: the plug-in's Init refused\n");
        return false;
    }
    return true;
}

}  // namespace kwhost
