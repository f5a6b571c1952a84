#include "support/kit.h"

#include "support/child.h"

#include <cctype>
#include <cstdlib>

namespace kwtest {

ScopedEnv::ScopedEnv(const wchar_t* name, const wchar_t* value) : m_name(name) {
    wchar_t buf[4096];
    DWORD n = GetEnvironmentVariableW(name, buf, 4096);
    m_had = n > 0 && n < 4096;
    if (m_had) m_old.assign(buf, n);
    SetEnvironmentVariableW(name, value);
}

ScopedEnv::~ScopedEnv() { SetEnvironmentVariableW(m_name.c_str(), m_had ? m_old.c_str() : nullptr); }

std::wstring EnvText(const wchar_t* name) {
    wchar_t buf[4096] = {0};
    DWORD n = GetEnvironmentVariableW(name, buf, 4096);
    return n && n < 4096 ? std::wstring(buf, n) : std::wstring();
}

bool ProcessIsWow64() {
    BOOL wow = FALSE;
    return IsWow64Process(GetCurrentProcess(), &wow) && wow;
}

std::string RowName(const char* title) {
    std::string s;
    for (const char* p = title; *p; ++p) s += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    return s;
}

void RunRowsInChildren(const char* childTest, size_t rows, const char* indexVar) {
    for (size_t i = 0; i < rows; ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        std::string out;
        int rc = RunChild(childTest, {std::string(indexVar) + "=" + std::to_string(i)}, &out);
        EXPECT_EQ(0, rc) << out;
        EXPECT_NE(std::string::npos, out.find("[  PASSED  ] 1 test")) << out;
    }
}

size_t RowIndex(const char* indexVar) {
    const char* v = getenv(indexVar);
    return v ? static_cast<size_t>(strtoul(v, nullptr, 10)) : 0;
}

}  // namespace kwtest
