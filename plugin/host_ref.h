// A counted reference to a host object that follows the host's own counting:
// slot 1 adds a reference, slot 2 releases one. Assigning adds a reference to
// the new object first, then releases the old one; assigning the same object
// again does nothing.
#pragma once
#include "common/host_iface.h"

namespace kw {

class HostRuleEngineRef {
public:
    HostRuleEngineRef() noexcept = default;
    HostRuleEngineRef(const HostRuleEngineRef&) = delete;
    HostRuleEngineRef& operator=(const HostRuleEngineRef&) = delete;
    // Deliberately no release in the destructor: the plug-in keeps the host's
    // object as its log sink for the life of the module.
    ~HostRuleEngineRef() = default;

    HostRuleEngineRef& operator=(IHostRuleEngine* p) noexcept {
        if (p == m_p) return *this;
        if (p) p->AddRef();
        IHostRuleEngine* old = m_p;
        m_p = p;
        if (old) old->Release();
        return *this;
    }
    IHostRuleEngine* get() const noexcept { return m_p; }

private:
    IHostRuleEngine* m_p = nullptr;
};

}  // namespace kw
