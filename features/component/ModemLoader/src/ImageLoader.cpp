#include "ImageLoader.h"

CImageLoader::CImageLoader(std::string& name, IEventBroker& eventBroker,
                           const IFeatureProperties& properties, ILoaderCallback& callback)
    : m_name(name),
      m_eventBroker(eventBroker),
      m_properties(properties),
      m_callback(callback),
      m_tickEvent{EVENT_TYPE_TICK, 0, 1000, reinterpret_cast<const void*>(1)} {}

CImageLoader::~CImageLoader() {}

bool CImageLoader::Prepare() { return false; }

void CImageLoader::Install() {}

void CImageLoader::Abort() { m_callback.Aborted(); }

void CImageLoader::OnEvent(const TEvent& /*event*/) {}
