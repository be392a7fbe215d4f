#include "FakeLoader.h"

namespace {
// Ticks handled by any fake loader since the module was loaded. Deliberately never reset, not
// even by a new Install: a later installation in the same process continues the count.
uint32_t sFakeTicks = 0;

constexpr uint32_t kStepPerTick = 5;
constexpr uint32_t kProgressTotal = 100;
}  // namespace

CFakeLoader::CFakeLoader(std::string& name, IEventBroker& eventBroker,
                         const IFeatureProperties& properties, ILoaderCallback& callback)
    : m_name(name),
      m_eventBroker(eventBroker),
      m_properties(properties),
      m_callback(callback),
      m_tickEvent{EVENT_TYPE_TICK, 0, 1000, reinterpret_cast<const void*>(1)} {}

// Does not unsubscribe: the module never deletes its fake loader.
CFakeLoader::~CFakeLoader() {}

bool CFakeLoader::Prepare() { return true; }

void CFakeLoader::Install() {
    m_eventBroker.Subscribe(m_tickEvent, *static_cast<IEventObserver*>(this));
}

// The subscription stays: the simulated installation runs on to its own end.
void CFakeLoader::Abort() { m_callback.Aborted(); }

void CFakeLoader::OnEvent(const TEvent& /*event*/) {
    const uint32_t ticks = ++sFakeTicks;
    const uint32_t done = kStepPerTick * ticks;
    m_callback.Progress(kProgressTotal - done, kProgressTotal);
    if (done <= kProgressTotal - 1) {
        return;
    }
    m_callback.Completed(LOADER_SUCCEEDED);
    m_eventBroker.Unsubscribe(m_tickEvent, *static_cast<IEventObserver*>(this));
}
