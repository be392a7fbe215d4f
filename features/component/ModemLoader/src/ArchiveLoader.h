#pragma once
// The loader for devices without a control pin: it installs an update by copying the four update
// files onto the movinand storage, synchronously inside Install, on the host's event thread.
//
// Prepare reads the eight paths and names this loader needs; Install mounts the storage, copies
// the bootloader, firmware, daemon config and product config into the target folder, creates an
// empty flag file directly under the mount point when all four copies succeeded, flushes,
// unmounts and reports Completed before it returns. Abort only answers Aborted().
//
// The failure mark is never cleared: once a Prepare (mark 1) or an Install (mark 2) of this
// object has failed, every later Install reports Completed(0), even one whose every step
// succeeds: an update that failed once stays failed for the life of the object, on purpose.
//
// A source path without "/" (also an empty one) makes Install leave with std::out_of_range
// ("basic_string::substr") before any copy, with the storage still mounted and no completion.

#include <cstdint>
#include <string>

#include "EventBroker.h"
#include "FeatureProperties.h"
#include "Loader.h"
#include "LoaderCallback.h"

class CArchiveLoader : public ILoader {
public:
    // The event broker is accepted and not kept: this loader raises no events of its own. The
    // properties and the callback are kept by reference, never owned.
    CArchiveLoader(std::string& name, IEventBroker& eventBroker,
                   const IFeatureProperties& properties, ILoaderCallback& callback);
    ~CArchiveLoader() override;

    // Reads the properties; false, with the failure mark set to 1, when one is missing.
    bool Prepare() override;
    // The whole installation; Completed is called before it returns (unless a source path holds
    // no "/", see above).
    void Install() override;
    // Answers Aborted() at once; touches no file.
    void Abort() override;

private:
    // Reads the eight keys in order and stops silently at the first missing one: the keys after
    // it are not looked up and keep what they held.
    bool FillProperties();
    // Completed(1) while the failure mark is 0, Completed(0) otherwise.
    void Terminate();

    std::string m_name;
    const IFeatureProperties& m_properties;
    ILoaderCallback& m_callback;
    int32_t m_failureMark;  // 0 fine, 1 Prepare failed, 2 Install failed; never reset
    std::string m_bootloader;
    std::string m_firmware;
    std::string m_productConfig;
    std::string m_daemonConfig;
    std::string m_mountPoint;
    std::string m_movinand;
    std::string m_targetFolder;
    std::string m_flagFile;
};
