// Shared pieces of the end-to-end tests: one plug-in per test program, loaded
// with the rule text below, and helpers that send registry events through
// PostProcessEvent exactly as a monitor would report them.
#pragma once
#include "host_sim.h"
#include "support/fixtures.h"
#include "support/kit.h"

#include <string>
#include <vector>

namespace e2e {

// Rules used by the end-to-end tests (ParseID -> what it covers).
extern const char* const kRules;

// The process-wide plug-in, created and initialised with kRules on first use.
hostsim::PluginHost& Host();

// Sends one event with the analysis id (mode 2 unless given) and returns the
// targets the host received, in order.
std::vector<std::wstring> Post(hostsim::Event& ev, uint32_t parseId, uint32_t mode = 2);

// A REG_SZ (or other string type) value write as the monitor reports it.
std::vector<std::wstring> PostSz(const std::wstring& keyPath, const std::wstring& valueName,
                                 const std::wstring& data, uint32_t parseId, uint32_t type = REG_SZ);

// A registry event of operation `op` (1 key created, 6 value set...) with a
// value name (null: none) and text data followed by its NUL. `claimedSize`,
// when not 0, replaces the data size the event reports; `pid` 0 is this process.
std::vector<std::wstring> PostValue(uint32_t op, const std::wstring& keyPath, const wchar_t* valueName,
                                    uint32_t type, const std::wstring& data, uint32_t parseId,
                                    uint32_t claimedSize = 0, uint32_t pid = 0, uint32_t mode = 2);

// Paths as the host receives them as targets: upper-cased, in order.
std::vector<std::wstring> Targets(std::vector<std::wstring> paths);

}  // namespace e2e
