#include "registry/folder_names.h"

namespace kw {

namespace {

const CsidlName kCsidlNames[] = {
    {L"APPDATA", 0x1A, nullptr},
    {L"LOCALAPPDATA", 0x1C, L"Local AppData"},
    {L"DESKTOPDIR", 0x10, L"DESKTOP"},
    {L"PROGRAMS", 0x02, nullptr},
    {L"MYDOCUMENTS", 0x05, nullptr},
    {L"PERSONAL", 0x05, nullptr},
    {L"FAVORITES", 0x06, nullptr},
    {L"STARTUP", 0x07, nullptr},
    {L"RECENT", 0x08, nullptr},
    {L"SENDTO", 0x09, nullptr},
    {L"STARTMENU", 0x0B, L"Start Menu"},
    {L"FONTS", 0x14, nullptr},
    {L"COOKIES", 0x21, nullptr},
    {L"HISTORY", 0x22, nullptr},
    {L"TEMPLATES", 0x15, nullptr},
    {L"USERPROFILE", 0x28, L"USERPROFILE"},
    {L"WINDOWS", 0x24, nullptr},
    {L"SYSTEM", 0x25, nullptr},
    {L"PROGRAMFILESX86", 0x2A, nullptr},
    {L"PROGRAMFILES", 0x26, nullptr},
    {L"MYPICTURES", 0x27, L"My Pictures"},
    {L"MYMUSIC", 0x0D, L"My Music"},
    {L"MYVIDEO", 0x0E, L"My Video"},
    {L"COMMONX86", 0x2C, nullptr},
    {L"COMMONFILES", 0x2B, nullptr},
    {L"COMMON_APPDATA", 0x23, L"Common AppData"},
    {L"COMMON_DESKTOPDIR", 0x19, L"Common Desktop"},
    {L"COMMON_DESKTOPDIRECTORY", 0x19, nullptr},
    {L"COMMON_DOCUMENTS", 0x2E, L"Common Documents"},
    {L"COMMON_FAVORITES", 0x1F, nullptr},
    {L"COMMON_PROGRAMS", 0x17, L"Common Programs"},
    {L"COMMON_STARTMENU", 0x16, L"Common Start Menu"},
    {L"COMMON_STARTUP", 0x18, L"Common Startup"},
    {L"COMMON_PICTURES", 0x36, L"CommonPictures"},
    {L"COMMON_MUSIC", 0x35, L"CommonMusic"},
    {L"COMMON_VIDEO", 0x37, L"CommonVideo"},
    // The shared ids below (0x28 again, program files 0x26 for "Programs") are
    // deliberate table contents that the per-user folder filing relies on.
    {L"DEFAULT_PROFILE", 0x28, L"USERPROFILE"},
    {L"DEFAULT_PROGRAMS", 0x26, L"Programs"},
    {L"DEFAULT_STARTMENU", 0x0B, L"Start Menu"},
    {L"DEFAULT_STARTUP", 0x07, L"Startup"},
};
static_assert(sizeof(kCsidlNames) / sizeof(kCsidlNames[0]) == 40, "the name table has 40 rows");

}  // namespace

std::wstring AsciiUpperName(const std::wstring& name) {
    std::wstring up = name;
    for (wchar_t& c : up)
        if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
    return up;
}

bool EqualsAsciiUpper(const std::wstring& name, const wchar_t* upperText) {
    size_t i = 0;
    for (; i < name.size(); ++i) {
        wchar_t c = name[i];
        if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
        if (upperText[i] == L'\0' || c != upperText[i]) return false;
    }
    return upperText[i] == L'\0';
}

int GetCsidlByName(const std::wstring& name) {
    for (const CsidlName& row : kCsidlNames)
        if (EqualsAsciiUpper(name, row.token)) return row.csidl;
    return -1;
}

const CsidlName* GetCsidlNameTable(size_t* count) {
    if (count) *count = sizeof(kCsidlNames) / sizeof(kCsidlNames[0]);
    return kCsidlNames;
}

}  // namespace kw
