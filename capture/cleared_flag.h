// Holds a flag at false for a scope.
#pragma once

namespace kestra {

class ClearedFlag {
public:
    explicit ClearedFlag(bool& flag) : m_flag(flag), m_before(flag) { m_flag = false; }
    ~ClearedFlag() { m_flag = m_before; }
    ClearedFlag(const ClearedFlag&) = delete;
    ClearedFlag& operator=(const ClearedFlag&) = delete;

private:
    bool& m_flag;
    const bool m_before;
};

} // namespace kestra
