#pragma once
// The modem's power key, as seen through its control pin ("0" pressed, "1" released), and its
// ready line. Pure: the caller reports pin levels and the time and asks what happened.
//
//  - A press that begins while the modem is off switches it on; it is ready after the power-on
//    delay. That press never switches it off, however long it is held: the image loader leaves
//    the pin at "0" after a successful sync.
//  - A press that begins while the modem is on (or powering up) and is held for 5 s switches it
//    off at the 5 s mark. Releasing earlier does nothing.
// Single-threaded.

#include <chrono>
#include <optional>

class CPowerModel {
public:
    using TTime = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds kSwitchOffPress{5000};

    enum class TChange { eNone, ePoweredOn, ePoweredOff };
    struct TEvent {
        TChange change = TChange::eNone;
        TTime at{};  // when it happened, which may be before the Advance that reports it
    };

    // `pinLevel` is the pin's level at start ('0' or '1'); a level held from before the start
    // is no press.
    CPowerModel(std::chrono::milliseconds powerOnDelay, bool initiallyOn, char pinLevel);

    // The control pin now reads `level`; anything but '0' and '1' is ignored.
    void SetPin(char level, TTime now);

    // Reports the next change that falls due by `now`, or eNone; call until eNone.
    TEvent Advance(TTime now);
    std::optional<TTime> NextDeadline() const;

    bool IsOn() const { return m_on; }
    unsigned PowerUps() const { return m_powerUps; }
    unsigned PowerOffs() const { return m_powerOffs; }

private:
    const std::chrono::milliseconds m_powerOnDelay;
    char m_pin;
    bool m_on;
    std::optional<TTime> m_readyAt;      // powering up
    std::optional<TTime> m_switchOffAt;  // a press that began while on
    unsigned m_powerUps = 0;
    unsigned m_powerOffs = 0;
};
