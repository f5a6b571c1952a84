// COM class registrations made for one test: a fresh CLSID text and a class
// key that is removed, with whatever the test created above it, on scope exit.
#pragma once
#include "support/fixtures.h"

#include <gtest/gtest.h>
#include <objbase.h>

#include <string>
#include <vector>

namespace kwtest {

// A CLSID text no registry holds yet: a fresh GUID for every call.
inline std::wstring FreshClsid() {
    GUID g;
    EXPECT_EQ(S_OK, CoCreateGuid(&g));
    wchar_t text[64] = {0};
    StringFromGUID2(g, text, 64);
    return text;
}

// A class key made for one test. It remembers the highest key on its path
// that did not exist before (a fresh prefix may lack the per-user CLSID key,
// for example) and deletes that key with everything below on scope exit.
class ClassRegistration {
public:
    // path: class key below root, e.g. "<sid>\Software\Classes\CLSID\{...}".
    ClassRegistration(HKEY root, std::wstring path, REGSAM view) : m_root(root), m_path(std::move(path)), m_view(view) {
        m_topCreated = m_path;
        for (size_t cut = m_path.rfind(L'\\'); cut != std::wstring::npos && cut > 0; cut = m_path.rfind(L'\\', cut - 1)) {
            std::wstring parent = m_path.substr(0, cut);
            if (RegKeyExists(m_root, parent, m_view)) break;
            m_topCreated = parent;
        }
        m_created = RegCreate(m_root, m_path, m_view);
    }
    ~ClassRegistration() { RegDeleteTreeView(m_root, m_topCreated, m_view); }
    ClassRegistration(const ClassRegistration&) = delete;
    ClassRegistration& operator=(const ClassRegistration&) = delete;

    bool Created() const { return m_created; }
    bool SetServer(const wchar_t* server, const std::wstring& value, DWORD type = REG_SZ) {
        return RegSetSz(m_root, m_path + L"\\" + server, L"", value, m_view, type);
    }
    bool SetServerRaw(const wchar_t* server, DWORD type, const std::vector<BYTE>& data) {
        return RegSetRaw(m_root, m_path + L"\\" + server, L"", type, data.data(), static_cast<DWORD>(data.size()), m_view);
    }
    bool CreateServerKey(const wchar_t* server) { return RegCreate(m_root, m_path + L"\\" + server, m_view); }

private:
    HKEY m_root;
    std::wstring m_path;
    std::wstring m_topCreated;
    REGSAM m_view;
    bool m_created = false;
};

}  // namespace kwtest
