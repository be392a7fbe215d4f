#include "PowerModel.h"

CPowerModel::CPowerModel(std::chrono::milliseconds powerOnDelay, bool initiallyOn, char pinLevel)
    : m_powerOnDelay(powerOnDelay), m_pin(pinLevel == '0' ? '0' : '1'), m_on(initiallyOn) {}

void CPowerModel::SetPin(char level, TTime now) {
    if ((level != '0' && level != '1') || level == m_pin) {
        return;
    }
    m_pin = level;
    if (level == '1') {
        m_switchOffAt.reset();
        return;
    }
    if (m_on || m_readyAt) {
        m_switchOffAt = now + kSwitchOffPress;
    } else {
        m_readyAt = now + m_powerOnDelay;
    }
}

CPowerModel::TEvent CPowerModel::Advance(TTime now) {
    if (m_readyAt && now >= *m_readyAt && (!m_switchOffAt || *m_readyAt <= *m_switchOffAt)) {
        const TTime at = *m_readyAt;
        m_readyAt.reset();
        m_on = true;
        ++m_powerUps;
        return {TChange::ePoweredOn, at};
    }
    if (m_switchOffAt && now >= *m_switchOffAt) {
        const TTime at = *m_switchOffAt;
        m_switchOffAt.reset();
        m_readyAt.reset();
        const bool wasOn = m_on;
        m_on = false;
        if (wasOn) {
            ++m_powerOffs;
            return {TChange::ePoweredOff, at};
        }
    }
    return {};
}

std::optional<CPowerModel::TTime> CPowerModel::NextDeadline() const {
    if (m_readyAt && (!m_switchOffAt || *m_readyAt <= *m_switchOffAt)) {
        return m_readyAt;
    }
    return m_switchOffAt;
}
