// Pauses between attempts at something that fails for a while (a server that is away, a message that cannot
// be delivered yet): the first pause after the first failure, twice the last after each further one, never
// longer than the longest; a success starts again from the first.
#pragma once

#include <algorithm>
#include <chrono>

namespace velmar {

class CBackoff {
public:
    using Clock = std::chrono::steady_clock;

    CBackoff(Clock::duration first, Clock::duration longest) : m_first(first), m_longest(longest) {}

    // One more failure at now: returns the pause until the next attempt, which is due then.
    Clock::duration Fail(Clock::time_point now = Clock::now()) {
        m_pause = m_pause == Clock::duration::zero() ? m_first : std::min(m_pause * 2, m_longest);
        m_due = now + m_pause;
        return m_pause;
    }
    void Succeed() {
        m_pause = Clock::duration::zero();
        m_due = {};
    }
    // Whether the pause after the last failure still runs at now.
    bool Pausing(Clock::time_point now = Clock::now()) const { return now < m_due; }
    Clock::time_point Due() const { return m_due; }

private:
    Clock::duration m_first;
    Clock::duration m_longest;
    Clock::duration m_pause = Clock::duration::zero();  // the last pause; zero after a success
    Clock::time_point m_due{};
};

}  // namespace velmar
