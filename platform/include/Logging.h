#pragma once
// The host's logging service.
//
// A record is made by streaming into a CLogHandle, which hands exactly one record to the
// installed sink (an ILog) when it goes out of scope. A record carries its category, channel,
// the name of the function that logs, the source file and line, and the streamed text.
// Without a sink records are dropped. Records may be made from any thread; the sink must cope.

#include <sstream>
#include <string>

namespace logging {

namespace categories {
enum TCategory {
    Error,   // failures
    Always,  // notable normal events
};
}  // namespace categories

enum TChannel {
    ModemLoader,
    Platform,  // the host's own services: why a call the feature made failed
};

struct TLogRecord {
    categories::TCategory category;
    TChannel channel;
    std::string function;
    std::string file;
    int line;
    std::string text;
};

namespace internals {

// A log sink.
class ILog {
public:
    virtual ~ILog() {}
    virtual void Write(const TLogRecord& record) = 0;
};

// One record in the making.
class CLogHandle {
public:
    CLogHandle(categories::TCategory category, TChannel channel, const char* function,
               const char* file, int line);
    ~CLogHandle();
    CLogHandle(const CLogHandle&) = delete;
    CLogHandle& operator=(const CLogHandle&) = delete;

    template <typename T>
    CLogHandle& operator<<(const T& value) {
        m_stream << value;
        return *this;
    }

private:
    categories::TCategory m_category;
    TChannel m_channel;
    const char* m_function;
    const char* m_file;
    int m_line;
    std::ostringstream m_stream;
};

}  // namespace internals

// Control of the logging service: which sink receives the records, and the names of the
// categories and channels as the host prints them.
class IControl {
public:
    // Installs `log` (null removes it) and returns the sink installed before.
    static internals::ILog* SetLog(internals::ILog* log);
    static const char* CategoryName(categories::TCategory category);  // "Error", "Always"
    static const char* ChannelName(TChannel channel);                 // "ModemLoader", "Platform"
};

}  // namespace logging
