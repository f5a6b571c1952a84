#include "registry/user_reg_helper.h"

#include "common/func_resolver.h"
#include "common/handle.h"
#include "common/strutil.h"
#include "common/sys_text.h"
#include "diag/trace.h"
#include "registry/folder_names.h"
#include "registry/reg_util.h"
#include "registry/user_reg_hive.h"

#include <vector>

namespace kw_user {

namespace {

const wchar_t kVolatileEnvironment[] = L"Volatile Environment";
const wchar_t kEnvironment[] = L"Environment";
const wchar_t kUserShellFolders[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
const wchar_t kUserHiveFile[] = L"\\NTUSER.dat";
const wchar_t kClassesHiveFile[] = L"\\AppData\\Local\\Microsoft\\Windows\\UsrClass.dat";
const wchar_t kClassesSuffix[] = L"_Classes";

constexpr int kCsidlProfile = 0x28;
// Values longer than this are not paths; they are skipped.
constexpr DWORD kCchValueMax = 32767;

struct RawValue {
    std::wstring name;
    std::wstring text;
};

bool FileExists(const std::wstring& path) {
    DWORD attrs = GetFileAttributesW(path.c_str());
    return attrs != INVALID_FILE_ATTRIBUTES && !(attrs & FILE_ATTRIBUTE_DIRECTORY);
}

// Every string value (REG_SZ or REG_EXPAND_SZ) of HKEY_USERS\<path>. The data
// need not be terminated or of even size; values of other types are skipped.
std::vector<RawValue> ReadStringValues(const std::wstring& path) {
    std::vector<RawValue> values;
    kw::unique_hkey key;
    // HKEY_USERS is not redirected; the 64-bit view is named for clarity.
    if (kw::DynRegOpenKeyExW(HKEY_USERS, path.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, key.put()) !=
        ERROR_SUCCESS)
        return values;
    DWORD cchNameMax = 0, cbDataMax = 0;
    if (RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         &cchNameMax, &cbDataMax, nullptr, nullptr) != ERROR_SUCCESS)
        return values;
    if (cbDataMax > kCchValueMax * sizeof(wchar_t)) cbDataMax = kCchValueMax * sizeof(wchar_t);
    std::vector<wchar_t> name(cchNameMax + 2, L'\0');
    std::vector<wchar_t> data(cbDataMax / sizeof(wchar_t) + 2, L'\0');
    for (DWORD index = 0;; ++index) {
        DWORD cchName = static_cast<DWORD>(name.size());
        DWORD cbData = static_cast<DWORD>((data.size() - 1) * sizeof(wchar_t));
        DWORD type = 0;
        LONG rc = RegEnumValueW(key.get(), index, name.data(), &cchName, nullptr, &type,
                                reinterpret_cast<BYTE*>(data.data()), &cbData);
        if (rc == ERROR_MORE_DATA) continue;  // longer than any path: skipped
        if (rc != ERROR_SUCCESS) break;
        if (type != REG_SZ && type != REG_EXPAND_SZ) continue;
        values.push_back(RawValue{std::wstring(name.data(), kw::LenBounded(name.data(), cchName)),
                                  kw::RegDataText(data.data(), cbData)});
    }
    return values;
}

bool ProcessEnvironmentValue(const std::wstring& name, std::wstring& value) {
    std::wstring text;
    if (!kw::GetEnvironmentText(name.c_str(), text) || text.size() > kCchValueMax) return false;
    value.swap(text);
    return true;
}

}  // namespace

std::wstring ExpandUserText(const std::wstring& text, const UserVarLookup& lookup, size_t cchMax) {
    std::wstring out;
    size_t pos = 0;
    while (pos < text.size() && out.size() < cchMax) {
        const size_t open = text.find(L'%', pos);
        if (open == std::wstring::npos) {
            out.append(text, pos, std::wstring::npos);
            break;
        }
        out.append(text, pos, open - pos);
        const size_t close = text.find(L'%', open + 1);
        if (close == std::wstring::npos) {
            out.append(text, open, std::wstring::npos);
            break;
        }
        const std::wstring name = text.substr(open + 1, close - open - 1);
        std::wstring value;
        if (!name.empty() && lookup && lookup(kw::AsciiUpperName(name), value)) {
            out += value;
            pos = close + 1;
        } else {
            // Unknown: keep this '%' and look for a token from the next one on.
            out += L'%';
            pos = open + 1;
        }
    }
    if (out.size() > cchMax) out.resize(cchMax);
    return out;
}

bool IsPerUserVariable(const std::wstring& upperName) {
    static const wchar_t* const kPerUser[] = {
        L"USERPROFILE",   L"TEMP",        L"TMP",       L"APPDATA",    L"LOCALAPPDATA",
        L"HOMEDRIVE",     L"HOMEPATH",    L"HOMESHARE", L"USERNAME",   L"USERDOMAIN",
        L"USERDNSDOMAIN", L"LOGONSERVER", L"ONEDRIVE",  L"CLIENTNAME", L"SESSIONNAME",
    };
    for (const wchar_t* name : kPerUser)
        if (upperName == name) return true;
    return false;
}

int ShellFolderIdOfValueName(const std::wstring& valueName) {
    size_t count = 0;
    const kw::CsidlName* table = kw::GetCsidlNameTable(&count);
    const std::wstring upper = kw::AsciiUpperName(valueName);
    for (size_t i = 0; i < count; ++i) {
        if (upper == table[i].token) return table[i].csidl;
        if (table[i].second && upper == kw::AsciiUpperName(table[i].second)) return table[i].csidl;
    }
    return -1;
}

CUserRegHelper::CUserRegHelper(const std::wstring& sid, const std::wstring& profilePath)
    : m_strSid(sid), m_strProfile(profilePath) {}

// Deliberately no registry work here: the destructor of the process-wide
// manager runs while the module is unloaded, where nothing may be traced.
// Hives are unloaded by Fill, right after their values are read.
CUserRegHelper::~CUserRegHelper() = default;

void CUserRegHelper::Fill() {
    if (m_bFilled) {
        UnloadHives();  // one whose unload failed before (nothing to do otherwise)
        return;
    }
    if (!LoadHives()) {
        // The hive file is there but could not be loaded (locked while the
        // user logs off, say): nothing is remembered, the next question tries again.
        UnloadHives();
        return;
    }
    ReadValues();
    UnloadHives();
    m_bFilled = true;
}

bool CUserRegHelper::LoadHives() {
    if (IsUserHiveLoaded(m_strSid)) {
        m_bHive = true;  // the user's hive is already there (logged on, or loaded by others)
    } else if (!m_strProfile.empty()) {
        const std::wstring file = m_strProfile + kUserHiveFile;
        if (!FileExists(file)) {
            KW_ERROR("CUserRegHelper::LoadHive", "no hive file %ls for %ls", file.c_str(),
                     m_strSid.c_str());
        } else if (LoadUserHive(m_strSid, file) == ERROR_SUCCESS) {
            m_bHive = m_bLoadedUser = true;
        } else {
            return false;
        }
    }
    const std::wstring classes = m_strSid + kClassesSuffix;
    if (!m_strProfile.empty() && !IsUserHiveLoaded(classes)) {
        const std::wstring file = m_strProfile + kClassesHiveFile;
        if (FileExists(file) && LoadUserHive(classes, file) == ERROR_SUCCESS)
            m_bLoadedClasses = true;
    }
    return true;
}

bool CUserRegHelper::LookupBase(const std::wstring& upperName, std::wstring& value) const {
    if (upperName == L"USERPROFILE") {
        if (m_strProfile.empty()) return false;
        value = m_strProfile;
        return true;
    }
    if (IsPerUserVariable(upperName)) return false;
    return ProcessEnvironmentValue(upperName, value);
}

bool CUserRegHelper::LookupUser(const std::wstring& upperName, std::wstring& value) const {
    if (upperName != L"USERPROFILE" || m_strProfile.empty()) {
        for (const auto* vars : {&m_volatileEnv, &m_environment}) {
            auto it = vars->find(upperName);
            if (it != vars->end()) {
                value = it->second;
                return true;
            }
        }
    }
    return LookupBase(upperName, value);
}

void CUserRegHelper::ReadValues() {
    if (!m_bHive) return;
    const UserVarLookup base = [this](const std::wstring& n, std::wstring& v) {
        return LookupBase(n, v);
    };
    // Variables are expanded one level (their own references to other user
    // variables are not followed), as the system builds a user's environment.
    for (const RawValue& v : ReadStringValues(m_strSid + L"\\" + kVolatileEnvironment))
        m_volatileEnv[kw::AsciiUpperName(v.name)] = ExpandUserText(v.text, base);
    for (const RawValue& v : ReadStringValues(m_strSid + L"\\" + kEnvironment))
        m_environment[kw::AsciiUpperName(v.name)] = ExpandUserText(v.text, base);

    const UserVarLookup user = [this](const std::wstring& n, std::wstring& v) {
        return LookupUser(n, v);
    };
    for (const RawValue& v : ReadStringValues(m_strSid + L"\\" + kUserShellFolders)) {
        const int id = ShellFolderIdOfValueName(v.name);
        if (id < 0 || m_shellFolders.count(id)) continue;
        m_shellFolders[id] = ExpandUserText(v.text, user);
    }
}

bool CUserRegHelper::GetVariable(const std::wstring& upperName, std::wstring& out) const {
    out.clear();
    if (upperName.empty()) return false;
    if (upperName == L"USERPROFILE" && !m_strProfile.empty()) {
        out = m_strProfile;
        return true;
    }
    for (const auto* vars : {&m_volatileEnv, &m_environment}) {
        auto it = vars->find(upperName);
        if (it != vars->end() && !it->second.empty()) {
            out = it->second;
            return true;
        }
    }
    size_t count = 0;
    const kw::CsidlName* table = kw::GetCsidlNameTable(&count);
    for (size_t i = 0; i < count; ++i) {
        const bool match = upperName == table[i].token ||
                           (table[i].second && upperName == kw::AsciiUpperName(table[i].second));
        if (!match) continue;
        auto it = m_shellFolders.find(table[i].csidl);
        if (it != m_shellFolders.end() && !it->second.empty()) {
            out = it->second;
            return true;
        }
        if (table[i].csidl == kCsidlProfile && !m_strProfile.empty()) {
            out = m_strProfile;
            return true;
        }
    }
    return false;
}

void CUserRegHelper::UnloadHives() noexcept {
    if (!m_bLoadedUser && !m_bLoadedClasses) return;
    try {
        if (m_bLoadedClasses && UnloadUserHive(m_strSid + kClassesSuffix) == ERROR_SUCCESS)
            m_bLoadedClasses = false;
        if (m_bLoadedUser && UnloadUserHive(m_strSid) == ERROR_SUCCESS) m_bLoadedUser = false;
    } catch (...) {
    }
}

}  // namespace kw_user
