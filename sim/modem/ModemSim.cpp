#include "ModemSim.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Summary.h"

namespace {

constexpr size_t kReadBlock = 4096;

CStatus ReadWholeFile(const std::string& path, std::vector<uint8_t>& contents) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return CStatus::Failure("reading the loader " + path + ": " + std::strerror(errno));
    }
    contents.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (contents.empty()) {
        return CStatus::Failure("reading the loader " + path +
                                ": it is empty, and the boot code needs at least one byte");
    }
    return CStatus::Ok();
}

}  // namespace

CModemSim::CModemSim(TOptions options)
    : m_options(std::move(options)),
      m_start(std::chrono::steady_clock::now()),
      m_trace(m_start),
      m_receivePacer(m_options.baud),
      m_transmitPacer(m_options.baud) {}

CStatus CModemSim::Start() {
    std::vector<uint8_t> loaderImage;
    if (CStatus status = ReadWholeFile(m_options.loader, loaderImage); !status.IsOk()) {
        return status;
    }
    if (!m_options.trace.empty()) {
        if (CStatus status = m_trace.Open(m_options.trace); !status.IsOk()) {
            return status;
        }
    }
    if (CStatus status = m_flash.Open(m_options.flashOut); !status.IsOk()) {
        return status;
    }
    if (CStatus status = m_ready.Open(m_options.ready, m_options.initiallyOn); !status.IsOk()) {
        return status;
    }
    if (CStatus status = m_pin.Open(m_options.control); !status.IsOk()) {
        return status;
    }
    if (CStatus status = m_terminal.Open(); !status.IsOk()) {
        return status;
    }

    CBootProtocol::TTimings timings;
    timings.bootWindow = m_options.bootWindow;
    timings.erase = m_options.erase;
    timings.program = m_options.program;
    m_protocol =
        std::make_unique<CBootProtocol>(std::move(loaderImage), timings, m_options.faults, m_flash);
    m_power =
        std::make_unique<CPowerModel>(m_options.powerOn, m_options.initiallyOn, m_pin.Level());
    if (m_options.initiallyOn) {
        m_protocol->StartInFirmware();
    }
    m_trace.Note(std::string("start, ") + (m_options.initiallyOn ? "on" : "off") + ", pin " +
                     m_pin.Level() + ", line " + m_terminal.SlavePath(),
                 std::chrono::steady_clock::now());
    return m_link.Create(m_terminal.SlavePath(), m_options.link);
}

CStatus CModemSim::UpdatePower(TTime now) {
    if (const auto level = m_pin.Changed()) {
        m_trace.Note(std::string("pin ") + *level, now);
        m_power->SetPin(*level, now);
    }
    for (auto event = m_power->Advance(now); event.change != CPowerModel::TChange::eNone;
         event = m_power->Advance(now)) {
        const bool on = event.change == CPowerModel::TChange::ePoweredOn;
        if (on) {
            m_protocol->PowerOn(event.at);
        } else {
            // A modem switched off sends nothing more.
            m_protocol->PowerOff();
            m_toHost.clear();
        }
        m_trace.Note(on ? "power on" : "power off", event.at);
        if (CStatus status = m_ready.Set(on); !status.IsOk()) {
            return status;
        }
    }
    return CStatus::Ok();
}

void CModemSim::ReceiveFromHost(TTime now, bool readable) {
    if (!m_terminal.IsOpen() || (!readable && !m_receivePacer.NextDue())) {
        return;
    }
    const size_t allowance = m_receivePacer.Allowance(now);
    if (allowance == 0) {
        return;
    }
    uint8_t buffer[kReadBlock];
    const size_t asked = std::min(allowance, sizeof buffer);
    const ssize_t result = ::read(m_terminal.Master(), buffer, asked);
    const size_t got = result > 0 ? static_cast<size_t>(result) : 0;
    m_receivePacer.Passed(got, got < asked);
    if (got == 0) {
        return;
    }
    m_trace.HostToModem(buffer, got, now);
    for (size_t index = 0; index < got; ++index) {
        m_protocol->Receive(buffer[index], now);
        if (m_protocol->LineHungUp()) {
            // The bytes after the last one received are lost with the line.
            m_terminal.Close();
            m_toHost.clear();
            m_trace.Note("line hung up", now);
            return;
        }
    }
    CollectOutput();
}

void CModemSim::CollectOutput() {
    const auto output = m_protocol->TakeOutput();
    m_toHost.insert(m_toHost.end(), output.begin(), output.end());
}

void CModemSim::TransmitToHost(TTime now) {
    if (m_toHost.empty() || !m_terminal.IsOpen()) {
        return;
    }
    const size_t allowance = m_transmitPacer.Allowance(now);
    if (allowance == 0) {
        return;
    }
    uint8_t buffer[kReadBlock];
    const size_t count = std::min({allowance, sizeof buffer, m_toHost.size()});
    std::copy_n(m_toHost.begin(), count, buffer);
    const ssize_t result = ::write(m_terminal.Master(), buffer, count);
    const size_t sent = result > 0 ? static_cast<size_t>(result) : 0;
    m_transmitBlocked = sent < count;
    m_toHost.erase(m_toHost.begin(), m_toHost.begin() + static_cast<std::ptrdiff_t>(sent));
    m_transmitPacer.Passed(sent, m_toHost.empty());
    if (sent > 0) {
        m_trace.ModemToHost(buffer, sent, now);
    }
}

std::optional<CModemSim::TTime> CModemSim::NextWake() const {
    std::optional<TTime> earliest;
    const auto consider = [&earliest](std::optional<TTime> candidate) {
        if (candidate && (!earliest || *candidate < *earliest)) {
            earliest = candidate;
        }
    };
    consider(m_power->NextDeadline());
    consider(m_protocol->NextDeadline());
    consider(m_receivePacer.NextDue());
    if (!m_toHost.empty()) {
        consider(m_transmitPacer.NextDue());
    }
    return earliest;
}

CStatus CModemSim::Run(int stopDescriptor) {
    bool readable = false;
    for (;;) {
        const TTime now = std::chrono::steady_clock::now();
        if (CStatus status = UpdatePower(now); !status.IsOk()) {
            return status;
        }
        m_protocol->Advance(now);
        CollectOutput();
        ReceiveFromHost(now, readable);
        TransmitToHost(now);
        if (CStatus status = m_flash.Flush(); !status.IsOk()) {
            return status;
        }

        // An unpaced line, or a paced one that is idle, waits for the host's next byte; a
        // paced line that is busy wakes when its next byte is due instead.
        const bool waitForHost = !m_receivePacer.NextDue();
        const bool waitForRoom =
            !m_toHost.empty() && (!m_transmitPacer.Paced() || m_transmitBlocked);
        pollfd descriptors[3] = {
            {m_terminal.Master(),
             static_cast<short>((waitForHost ? POLLIN : 0) | (waitForRoom ? POLLOUT : 0)), 0},
            {m_pin.WatchDescriptor(), POLLIN, 0},
            {stopDescriptor, POLLIN, 0},
        };
        timespec timeout{};
        timespec* timeoutPointer = nullptr;
        if (const auto wake = NextWake()) {
            const auto wait = std::max(*wake - std::chrono::steady_clock::now(),
                                       std::chrono::steady_clock::duration::zero());
            const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(wait);
            timeout.tv_sec = static_cast<time_t>(nanoseconds.count() / 1000000000);
            timeout.tv_nsec = static_cast<long>(nanoseconds.count() % 1000000000);
            timeoutPointer = &timeout;
        }
        if (::ppoll(descriptors, 3, timeoutPointer, nullptr) < 0 && errno != EINTR) {
            return CStatus::Failure(std::string("waiting for the line: ") + std::strerror(errno));
        }
        if (descriptors[2].revents & POLLIN) {
            m_trace.Note("stop", std::chrono::steady_clock::now());
            return CStatus::Ok();
        }
        readable = (descriptors[0].revents & POLLIN) != 0;
    }
}

CStatus CModemSim::Finish() {
    if (CStatus status = m_flash.Flush(); !status.IsOk()) {
        return status;
    }
    if (m_options.summary.empty() || !m_protocol) {
        return CStatus::Ok();
    }
    return WriteSummary(m_options.summary, SummaryJson(m_protocol->Statistics(),
                                                       m_power->PowerOffs(), m_flash.Sha256()));
}
