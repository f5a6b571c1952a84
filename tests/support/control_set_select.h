// Changes HKLM\System\Select "Current" (the number of the current control
// set) for a scope and puts back what was there, value or absence. The name
// derived from it is cached once per process, so tests use this only in a
// process of their own, and keep the scope short: every process of the
// prefix reads the same value.
#pragma once
#include "support/fixtures.h"

#include <windows.h>

namespace kwtest {

class SelectRestorer {
public:
    SelectRestorer() { m_had = RegGetDword(HKEY_LOCAL_MACHINE, kKey, L"Current", &m_saved); }
    ~SelectRestorer() {
        if (m_had)
            RegSetDword(HKEY_LOCAL_MACHINE, kKey, L"Current", m_saved);
        else
            DeleteCurrent();
    }
    SelectRestorer(const SelectRestorer&) = delete;
    SelectRestorer& operator=(const SelectRestorer&) = delete;

    bool Set(DWORD current) { return RegSetDword(HKEY_LOCAL_MACHINE, kKey, L"Current", current); }
    bool DeleteCurrent() {
        HKEY h = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, &h) != ERROR_SUCCESS)
            return false;
        LONG r = RegDeleteValueW(h, L"Current");
        RegCloseKey(h);
        return r == ERROR_SUCCESS || r == ERROR_FILE_NOT_FOUND;
    }
    bool HadValue() const { return m_had; }
    DWORD Saved() const { return m_saved; }

private:
    static constexpr const wchar_t* kKey = L"System\\Select";
    bool m_had = false;
    DWORD m_saved = 0;
};

// "ControlSet00<n>" for the value the prefix holds now; empty when none.
inline std::wstring ControlSetNameFromRegistry() {
    DWORD current = 0;
    if (!RegGetDword(HKEY_LOCAL_MACHINE, L"System\\Select", L"Current", &current)) return L"";
    return L"ControlSet00" + std::to_wstring(current);
}

}  // namespace kwtest
