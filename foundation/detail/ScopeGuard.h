#pragma once

#include <utility>

// Runs an action at the end of the scope unless it was dismissed.
template <typename Action> class ScopeGuard {
public:
    explicit ScopeGuard(Action action) : m_Action(std::move(action)) {}
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;
    ~ScopeGuard() {
        if (m_IsArmed)
            m_Action();
    }

    void Dismiss() { m_IsArmed = false; }

private:
    Action m_Action;
    bool m_IsArmed = true;
};
