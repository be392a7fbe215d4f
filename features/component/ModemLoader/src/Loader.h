#pragma once
// What the update controller asks of a loader.
//
// All calls arrive on the host's event thread. The controller enforces no order: a loader
// accepts Install without Prepare, a second Install, and Abort at any time. The outcome comes
// back through ILoaderCallback, possibly from inside Install or Abort.

class ILoader {
public:
    virtual ~ILoader() {}
    // Gets ready for an installation; true when ready. The controller does not act on the result.
    virtual bool Prepare() = 0;
    // Starts the installation and returns; the outcome arrives through the callback.
    virtual void Install() = 0;
    // Acknowledges at once with Aborted(); work already under way is not stopped.
    virtual void Abort() = 0;
};
