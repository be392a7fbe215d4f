#pragma once
// How a loader reports back to the update controller. Calls come on the host's event thread,
// possibly re-entrantly from inside the controller's own call to Install or Abort.

// Result codes of Completed. The receiver only tests for zero.
constexpr int LOADER_FAILED = 0;
constexpr int LOADER_SUCCEEDED = 1;

class ILoaderCallback {
public:
    virtual ~ILoaderCallback() {}
    // Work still to do first, the total second, in a unit of the loader's choosing.
    virtual void Progress(unsigned int remaining, unsigned int total) = 0;
    virtual void Completed(int result) = 0;
    virtual void Aborted() = 0;
};
