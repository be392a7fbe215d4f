// The platform's small value types: a failure's message gathers what each layer was doing, and a
// descriptor has exactly one owner that closes it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <utility>

#include "Descriptors.h"
#include "Status.h"
#include "UniqueFd.h"

namespace {

TEST(StatusTest, ContextIsAddedToAFailureOnlyAndLayersReadOutsideIn) {
    const CStatus failure = CStatus::Failure("open /dev/loop3: No such device");
    const CStatus wrapped = failure.WithContext("attaching image.ext4").WithContext("Mount");
    EXPECT_FALSE(wrapped);
    EXPECT_EQ(wrapped.Message(), "Mount: attaching image.ext4: open /dev/loop3: No such device");

    const CStatus ok = CStatus::Ok().WithContext("attaching image.ext4");
    EXPECT_TRUE(ok);
    EXPECT_TRUE(ok.IsOk());
    EXPECT_EQ(ok.Message(), "");
}

TEST(UniqueFdTest, MovesHandOverTheDescriptorAndOnlyTheLastOwnerClosesIt) {
    const std::set<int> before = OpenDescriptors();
    {
        CUniqueFd first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(first.IsValid());
        const int descriptor = first.Get();

        CUniqueFd second(std::move(first));
        EXPECT_FALSE(first.IsValid());  // NOLINT(bugprone-use-after-move): moved-from is empty
        EXPECT_EQ(second.Get(), descriptor);

        CUniqueFd third;
        third = std::move(second);
        EXPECT_EQ(third.Get(), descriptor);

        // Assigned to itself, it keeps its descriptor open.
        CUniqueFd& same = third;
        third = std::move(same);
        EXPECT_EQ(third.Get(), descriptor);
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);

        const int released = third.Release();
        EXPECT_EQ(released, descriptor);
        EXPECT_FALSE(third.IsValid());
        EXPECT_EQ(::fcntl(released, F_GETFD), FD_CLOEXEC);  // released, not closed
        third.Reset(released);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
