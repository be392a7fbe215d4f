#include "ArchiveLoader.h"

// The event broker is accepted and not kept: this loader raises no events of its own.
CArchiveLoader::CArchiveLoader(std::string& name, IEventBroker& /*eventBroker*/,
                               const IFeatureProperties& properties, ILoaderCallback& callback)
    : m_name(name), m_properties(properties), m_callback(callback) {}

CArchiveLoader::~CArchiveLoader() {}

bool CArchiveLoader::Prepare() { return false; }

void CArchiveLoader::Install() { m_callback.Completed(LOADER_FAILED); }

void CArchiveLoader::Abort() { m_callback.Aborted(); }
