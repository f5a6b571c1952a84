// A 32-bit plug-in on 64-bit Windows: a Wow6432Node Run key resolves its
// command in the 32-bit file-system view, a native Run key in the 64-bit one.
#include "e2e_support.h"

#include <gtest/gtest.h>

TEST(Views, RunKeyResolvesInItsOwnView) {
    const wchar_t* native = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
    const wchar_t* wow = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Run";
    // The Run key, where the file really is (the 64-bit folder through Sysnative), the folder of the target or null
    // when the file is not found in the key's view.
    const struct { const char* name; const wchar_t *runKey, *folderOfFile, *reportedFolder; } rows[] = {
        {"32-bit-only file, Wow6432Node key", wow, L"SysWOW64", L"SYSWOW64"},
        {"32-bit-only file, native key", native, L"SysWOW64", nullptr},
        {"64-bit-only file, native key", native, L"Sysnative", L"SYSTEM32"},
        {"64-bit-only file, Wow6432Node key", wow, L"Sysnative", nullptr},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        // A file that exists only in one of the two system folders.
        const std::wstring name = L"kwview" + std::to_wstring(GetCurrentProcessId()) + L".exe",
                           path = kwtest::WindowsDir() + L"\\" + r.folderOfFile + L"\\" + name;
        ASSERT_TRUE(kwtest::MakeFile(path));
        const std::wstring expected = r.reportedFolder ? kwtest::WindowsDir() + L"\\" + r.reportedFolder + L"\\" + name : name;
        EXPECT_EQ(std::vector<std::wstring>{kwtest::Upper(expected)}, e2e::PostSz(r.runKey, L"View", name, 6));
        DeleteFileW(path.c_str());
    }
}
