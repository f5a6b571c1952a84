#include "support/child.h"

#include <windows.h>

#include <vector>

namespace kwtest {

bool IsChild() {
    wchar_t buf[8];
    return GetEnvironmentVariableW(L"KW_TEST_CHILD", buf, 8) > 0;
}

static std::wstring Widen(const std::string& s) {
    return std::wstring(s.begin(), s.end());
}

int RunProgram(const std::wstring& exe, const std::wstring& args, const std::wstring& cwd,
               std::string* output, unsigned timeoutMs) {
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    HANDLE rd = nullptr, wr = nullptr;
    if (!CreatePipe(&rd, &wr, &sa, 0)) return -1;
    SetHandleInformation(rd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = wr;
    si.hStdError = wr;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    PROCESS_INFORMATION pi{};
    std::wstring cmd = L"\"" + exe + L"\" " + args;
    std::vector<wchar_t> cmdBuf(cmd.begin(), cmd.end());
    cmdBuf.push_back(0);
    BOOL ok = CreateProcessW(exe.c_str(), cmdBuf.data(), nullptr, nullptr, TRUE, 0, nullptr,
                             cwd.empty() ? nullptr : cwd.c_str(), &si, &pi);
    CloseHandle(wr);
    if (!ok) {
        CloseHandle(rd);
        return -1;
    }
    std::string out;
    char chunk[4096];
    DWORD got = 0;
    while (ReadFile(rd, chunk, sizeof(chunk), &got, nullptr) && got) out.append(chunk, got);
    CloseHandle(rd);
    DWORD code = static_cast<DWORD>(-1);
    if (WaitForSingleObject(pi.hProcess, timeoutMs) == WAIT_OBJECT_0)
        GetExitCodeProcess(pi.hProcess, &code);
    else
        TerminateProcess(pi.hProcess, 99);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    if (output) *output = out;
    return static_cast<int>(code);
}

int RunChild(const std::string& filter, const std::vector<std::string>& env, std::string* output) {
    wchar_t self[MAX_PATH * 2] = {0};
    GetModuleFileNameW(nullptr, self, MAX_PATH * 2 - 1);
    SetEnvironmentVariableW(L"KW_TEST_CHILD", L"1");
    std::vector<std::pair<std::wstring, std::wstring>> saved;
    for (const auto& kv : env) {
        size_t eq = kv.find('=');
        std::wstring name = Widen(kv.substr(0, eq));
        std::wstring value = eq == std::string::npos ? L"" : Widen(kv.substr(eq + 1));
        SetEnvironmentVariableW(name.c_str(), value.c_str());
        saved.emplace_back(name, value);
    }
    int rc = RunProgram(self, L"--gtest_filter=" + Widen(filter), L"", output);
    SetEnvironmentVariableW(L"KW_TEST_CHILD", nullptr);
    for (const auto& s : saved) SetEnvironmentVariableW(s.first.c_str(), nullptr);
    return rc;
}

}  // namespace kwtest
