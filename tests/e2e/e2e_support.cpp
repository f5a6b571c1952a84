#include "e2e_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace e2e {

const char* const kRules = R"({"RegParseConfig":[
 {"ParseID":5,"FunctionID":5,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run"},
 {"ParseID":6,"FunctionID":5,"CheckID":0},
 {"ParseID":7,"FunctionID":5,"CheckID":2,"RegRootkey":2147483651,"RegSubkey":"*\\Software\\kwtest\\*\\Run"},
 {"ParseID":20,"FunctionID":20,"CheckID":0},
 {"ParseID":19,"FunctionID":19,"CheckID":0},
 {"ParseID":14,"FunctionID":14,"CheckID":0},
 {"ParseID":1,"FunctionID":1,"CheckID":0,"Parameter1":","},
 {"ParseID":2,"FunctionID":1,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon","RegValueName":"Userinit","Parameter1":","},
 {"ParseID":76,"FunctionID":12,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SYSTEM\\CurrentControlSet\\Services\\*","RegValueName":"ServiceDll"},
 {"ParseID":31,"FunctionID":12,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SYSTEM\\CurrentControlSet\\Services\\*"},
 {"ParseID":32,"FunctionID":13,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SYSTEM\\CurrentControlSet\\Control\\Session Manager","RegValueName":"BootExecute"},
 {"ParseID":33,"FunctionID":21,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\KnownDlls"},
 {"ParseID":23,"FunctionID":5,"CheckID":1,"RegRootkey":2147483650,"RegSubkey":"SOFTWARE\\X","RegValueName":"wanted"},
 {"ParseID":15,"FunctionID":15,"CheckID":0},
 {"ParseID":202,"FunctionID":2,"CheckID":0,"Parameter1":"SOFTWARE\\kwtest-comp"},
 {"ParseID":203,"FunctionID":3,"CheckID":0,"Parameter1":"Startup"},
 {"ParseID":217,"FunctionID":17,"CheckID":0},
 {"ParseID":218,"FunctionID":18,"CheckID":0},
 {"ParseID":222,"FunctionID":22,"CheckID":0},
 {"ParseID":25,"FunctionID":5,"CheckID":2,"RegRootkey":2147483650,"RegSubkey":"SOFTWARE\\kwtest\\*","RegValueName":"DEFAULT_NULL"},
 {"ParseID":104,"FunctionID":4,"CheckID":0},
 {"ParseID":107,"FunctionID":7,"CheckID":0},
 {"ParseID":108,"FunctionID":8,"CheckID":0},
 {"ParseID":109,"FunctionID":9,"CheckID":0},
 {"ParseID":110,"FunctionID":10,"CheckID":0},
 {"ParseID":111,"FunctionID":11,"CheckID":0}
]})";

hostsim::PluginHost& Host() {
    static std::unique_ptr<hostsim::PluginHost> host;
    if (!host) {
        host.reset(new hostsim::PluginHost());
        EXPECT_TRUE(host->Load());
        EXPECT_TRUE(host->Create());
        EXPECT_TRUE(host->Init(kRules));
    }
    return *host;
}

std::vector<std::wstring> Post(hostsim::Event& ev, uint32_t parseId, uint32_t mode) {
    return Host().PostRegistry(ev, (mode << 16) | parseId);
}

std::vector<std::wstring> PostSz(const std::wstring& keyPath, const std::wstring& valueName,
                                 const std::wstring& data, uint32_t parseId, uint32_t type) {
    return PostValue(6, keyPath, valueName.c_str(), type, data, parseId);
}

std::vector<std::wstring> PostValue(uint32_t op, const std::wstring& keyPath, const wchar_t* valueName,
                                    uint32_t type, const std::wstring& data, uint32_t parseId,
                                    uint32_t claimedSize, uint32_t pid, uint32_t mode) {
    const std::wstring name = valueName ? valueName : L"";
    std::unique_ptr<hostsim::Event> ev(hostsim::Event::Registry(op, keyPath, valueName ? &name : nullptr, type,
                                                                data.c_str(), static_cast<uint32_t>((data.size() + 1) * 2),
                                                                pid ? pid : GetCurrentProcessId()));
    if (claimedSize) ev->Req().Context.DataSize = claimedSize;
    return Post(*ev, parseId, mode);
}

std::vector<std::wstring> Targets(std::vector<std::wstring> paths) {
    for (auto& s : paths) s = kwtest::Upper(s);
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace e2e
