#include "plugin/reg_key_translate.h"

#include "common/strutil.h"
#include "registry/user_sid.h"
#include "diag/trace.h"
#include "resolve/wow64.h"

#include <memory>
#include <new>
#include <string>

namespace kw {

namespace {

constexpr size_t kCchScratch = 1024;
constexpr DWORD kCbScratch = kCchScratch * sizeof(wchar_t);  // 2048 bytes
constexpr size_t kCchSid = MAX_PATH;

const wchar_t kLocalMachine[] = L"HKEY_LOCAL_MACHINE\\";
const wchar_t kHardwareProfile[] = L"HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Hardware Profiles\\0001\\";
const wchar_t kCurrentConfig[] = L"HKEY_CURRENT_CONFIG\\";
const wchar_t kUsers[] = L"HKEY_USERS\\";
const wchar_t kCurrentUser[] = L"HKEY_CURRENT_USER\\";
const wchar_t kUserClasses[] = L"HKEY_CURRENT_USER\\Software\\Classes\\";
const wchar_t kClassesRoot[] = L"HKEY_CLASSES_ROOT\\";
const wchar_t kClassesSuffix[] = L"_CLASSES\\";
const wchar_t kSymbolicControlSet[] = L"\\CurrentControlSet";

template <size_t N>
constexpr size_t Cch(const wchar_t (&)[N]) noexcept {
    return N - 1;
}

// "key starts with P": P occurs anywhere in key. The remainder is the key
// after its first length(P) characters, which exist whenever P occurs.
bool KeyHas(const std::wstring& key, const std::wstring& p) {
    return FindNoCase(key, p) != std::wstring::npos;
}
const wchar_t* Remainder(const std::wstring& key, size_t cchPrefix) noexcept {
    return cchPrefix <= key.size() ? key.c_str() + cchPrefix : L"";
}

void Compose(wchar_t* out, size_t cchOut, const wchar_t* head, const wchar_t* tail) noexcept {
    FormatBounded(out, cchOut, "%ls%ls", head, tail);
}

}  // namespace

CRegKeyTranslate::CRegKeyTranslate() {
    ZeroMemory(m_szCurrentControlSet, sizeof(m_szCurrentControlSet));
    ZeroMemory(m_szReserved, sizeof(m_szReserved));
    ZeroMemory(m_reserved, sizeof(m_reserved));
}

CRegKeyTranslate::~CRegKeyTranslate() = default;

bool CRegKeyTranslate::Init() {
    CopyBounded(m_szCurrentControlSet, MAX_PATH, GetCurrentControlSetName());
    return true;
}

bool CRegKeyTranslate::ReplaceCurrentControlSet(const wchar_t* key, wchar_t* out, DWORD outSize) {
    const size_t cchOut = outSize / sizeof(wchar_t);
    if (!key || !out || cchOut == 0) return false;
    const size_t cchName = LenBounded(m_szCurrentControlSet, MAX_PATH);
    if (cchName == 0) return false;
    try {
        const std::wstring k(key);
        const size_t pos = FindNoCase(k, std::wstring(m_szCurrentControlSet, cchName));
        if (pos == std::wstring::npos) return false;
        // The character in front of the name (normally the backslash) goes
        // with it; a name at the very start has nothing in front.
        std::wstring rewritten = k.substr(0, pos ? pos - 1 : 0);
        rewritten += kSymbolicControlSet;
        rewritten.append(k, pos + cchName, std::wstring::npos);
        CopyBounded(out, cchOut, rewritten.c_str(), rewritten.size());
    } catch (...) {
        return false;
    }
    // Deliberately concrete -> symbolic: events carry the concrete set, rules
    // and readers of the host's log the symbolic name.
    KW_INFO("CRegKeyTranslate::ReplaceCurrentControlSet", "m_szCurrentControlSet=%ls old = %ls ==> new = %ls",
            m_szCurrentControlSet, key, out);
    return true;
}

bool CRegKeyTranslate::Translate(DWORD processId, const wchar_t* key, wchar_t* out, DWORD outSize) {
    const size_t cchOut = outSize / sizeof(wchar_t);
    if (!key || !out || cchOut == 0) return false;
    std::unique_ptr<wchar_t[]> scratch(new (std::nothrow) wchar_t[kCchScratch]());
    if (!scratch) return false;
    wchar_t* const buf = scratch.get();

    try {
        const std::wstring k(key);

        if (KeyHas(k, kLocalMachine)) {
            CopyBounded(buf, kCchScratch, key);
            if (ReplaceCurrentControlSet(key, buf, kCbScratch)) {
                const size_t cchBuf = LenBounded(buf, kCchScratch);
                Compose(out, cchOut, kLocalMachine,
                        cchBuf >= Cch(kLocalMachine) ? buf + Cch(kLocalMachine) : L"");
                return true;
            }
            if (KeyHas(k, kHardwareProfile))
                Compose(out, cchOut, kCurrentConfig, Remainder(k, Cch(kHardwareProfile)));
            else
                Compose(out, cchOut, kLocalMachine, Remainder(k, Cch(kLocalMachine)));
            return true;
        }

        wchar_t sid[kCchSid] = {0};
        GetUserSidByPid(processId, sid, sizeof(sid));
        if (sid[0]) {
            const std::wstring classes = std::wstring(sid) + kClassesSuffix;
            const size_t pos = FindNoCase(k, classes);
            if (pos != std::wstring::npos) {
                Compose(out, cchOut, kUserClasses, k.c_str() + pos + classes.size());
                return true;
            }
            if (KeyHas(k, kUsers)) {
                const std::wstring ownHive = kUsers + std::wstring(sid) + L"\\";
                const std::wstring ownClasses = kUsers + classes;
                if (KeyHas(k, ownHive))
                    Compose(out, cchOut, kCurrentUser, Remainder(k, ownHive.size()));
                // Kept although the class-hive search above already takes
                // every key this test could match.
                else if (KeyHas(k, ownClasses))
                    Compose(out, cchOut, kClassesRoot, Remainder(k, ownClasses.size()));
                else
                    Compose(out, cchOut, kUsers, Remainder(k, Cch(kUsers)));
                return true;
            }
        }
    } catch (...) {
        // Out of memory: reported like any other failure.
    }
    // A refused key leaves out with the scratch text, which is empty here.
    CopyBounded(out, cchOut, buf);
    return false;
}

}  // namespace kw
