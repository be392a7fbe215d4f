#pragma once
// A process that has used up its descriptors (a host started under a low limit, or leaking in a
// long run): while an object lives, this process's limit of open descriptors lets only `spare`
// more be opened; the limit is restored when it goes.
//
//   CDescriptorLimit limit(0);
//   ASSERT_TRUE(limit.Lowered());
//   EXPECT_EQ(broker.Start().Message(), "event broker: eventfd: Too many open files");

#include <sys/resource.h>

class CDescriptorLimit {
public:
    explicit CDescriptorLimit(int spare);
    ~CDescriptorLimit();
    CDescriptorLimit(const CDescriptorLimit&) = delete;
    CDescriptorLimit& operator=(const CDescriptorLimit&) = delete;

    bool Lowered() const { return m_lowered; }

private:
    rlimit m_saved{};
    bool m_lowered = false;
};
