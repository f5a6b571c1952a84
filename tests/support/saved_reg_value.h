// A machine value of a fixed system key that a test must change (the
// boot-execute list, the known-DLL directory): on scope exit its data, its
// absence, or the absence of its whole key is put back. Read and written in
// the 64-bit view. Tests that change such a value share it with every process
// of the prefix: scripts/run-tests runs them one at a time.
#pragma once
#include "support/fixtures.h"

#include <windows.h>

#include <string>
#include <vector>

namespace kwtest {

class SavedRegValue {
public:
    SavedRegValue(const std::wstring& key, const wchar_t* name)
        : m_key(key), m_name(name), m_keyExisted(RegKeyExists(HKEY_LOCAL_MACHINE, key)) {
        HKEY h = nullptr;
        DWORD cb = 0;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &h) != ERROR_SUCCESS) return;
        m_had = RegQueryValueExW(h, name, nullptr, &m_type, nullptr, &cb) == ERROR_SUCCESS;
        m_data.resize(cb);
        m_had = m_had && RegQueryValueExW(h, name, nullptr, &m_type, m_data.data(), &cb) == ERROR_SUCCESS;
        RegCloseKey(h);
    }
    ~SavedRegValue() {
        if (m_had)
            RegSetRaw(HKEY_LOCAL_MACHINE, m_key, m_name, m_type, m_data.data(), static_cast<DWORD>(m_data.size()));
        else if (!m_keyExisted)
            RegDeleteTreeView(HKEY_LOCAL_MACHINE, m_key);
        else
            RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, m_key.c_str(), m_name);  // SYSTEM: one key in both views
    }
    SavedRegValue(const SavedRegValue&) = delete;
    SavedRegValue& operator=(const SavedRegValue&) = delete;

private:
    std::wstring m_key;
    const wchar_t* m_name;
    bool m_keyExisted;
    bool m_had = false;
    DWORD m_type = 0;
    std::vector<BYTE> m_data;
};

}  // namespace kwtest
