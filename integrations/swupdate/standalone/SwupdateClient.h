#pragma once
// The real SWUpdate (Debian's swupdate 2022.12) installing .swu images with `swupdate -i` on a
// simulated device, kept apart from the machine's own SWUpdate: everything it reads and writes
// lives in a temporary directory.
//   swupdate.cfg  its configuration (-f), with a versions section so that /etc/sw-versions is
//                 never read
//   modem-firmware.conf  the handler's settings (the device's host and configuration, the
//                 runner of this source tree)
//   t/            its TMPDIR: the extracted images, the handler's copies, its control and
//                 progress sockets (never the default ones in /tmp, where Debian's socket unit
//                 and its rebooting progress client listen)
//   fleet.crt/.key, other.crt/.key  two signers (EC keys, self-signed X.509 certificates); the
//                 installer trusts fleet.crt
//   swupdate      the installer as a command: `swupdate -i IMAGE` in a private mount and
//                 network namespace (unshare; the network namespace holds its notifier's
//                 abstract socket "@NotifyServer"), `-B none -m -M` (no bootloader, no state or
//                 transaction marker),
//                 `-H BOARD:REVISION`, the handler found through LUA_PATH_5_3 in this source tree
// Used from one thread; needs root (the mount namespace).

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "SimulatedDevice.h"
#include "Status.h"
#include "TemporaryDirectory.h"

struct TSwupdateSetup {
    std::string board = "modemloader-sim";
    std::string hardwareRevision = "1.0";
    // Where the integration comes from; empty: this source tree's (an installed package's
    // otherwise): the folder of swupdate_handlers.lua, the shared runner, the image maker.
    std::string handlerFolder;
    std::string runner;
    std::string imageMaker;
};

// What a .swu is made of; the update files are the simulated device's.
struct TSwuRequest {
    std::string board = "modemloader-sim";
    std::string hardwareRevision = "1.0";
    std::string revision = "124";
    std::string signer = "fleet";  // "fleet", "other"; empty: unsigned
};

class CSwupdateClient {
public:
    // Empty when SWUpdate can run here; otherwise why not (root, swupdate, openssl, cpio,
    // unshare).
    static std::string MissingPrerequisite();
    // The handler's folder and the image maker of this source tree.
    static std::string HandlerFolder();
    static std::string ImageMakerPath();

    [[nodiscard]] static CStatus Create(const CSimulatedDevice& device, const TSwupdateSetup& setup,
                                        std::unique_ptr<CSwupdateClient>& client);

    // `swupdate -i IMAGE`, to its end.
    TChildResult Install(const std::string& image, bool showOutput = false) const;
    // Whether an install succeeded: SWUpdate's exit status 0, or 1 after it reported
    // "SWUPDATE successful" and no failure. SWUpdate 2022.12 in `-i` mode now and then exits
    // with 1 after a complete, successful install (a few runs in a hundred on a loaded machine,
    // also with a handler that does nothing); its own report is the install's result.
    static bool Succeeded(const TChildResult& install);
    // Runs the image maker on the device's update files; `image` is its path.
    [[nodiscard]] CStatus MakeImage(const TSwuRequest& request, std::string& image) const;
    // A copy of `image` whose member `member` has its first byte inverted, archived again in the
    // same order (so its cpio checksum is right and only sw-description's sha256 can tell).
    [[nodiscard]] CStatus Tamper(const std::string& image, const std::string& member,
                                 std::string& tampered) const;

    const std::string& Directory() const { return m_directory.Path(); }
    std::string PathOf(const std::string& name) const { return m_directory.Join(name); }
    // The progress socket SWUpdate listens on while it runs.
    std::string ProgressSocket() const { return PathOf("t/swupdateprog"); }
    std::vector<std::string> InstallerArguments(const std::string& image) const;

private:
    explicit CSwupdateClient(const CSimulatedDevice& device) : m_device(device) {}
    CStatus Build(const TSwupdateSetup& setup);
    CStatus MakeSigner(const std::string& name) const;
    std::string InstallerScript(const TSwupdateSetup& setup) const;

    const CSimulatedDevice& m_device;
    std::string m_imageMaker;  // the setup's, or this tree's
    // Short: the sockets' paths must fit a sockaddr_un.
    CTemporaryDirectory m_directory{"/tmp/modemloader-swu-"};
};
