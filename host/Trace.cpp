#include "Trace.h"

#include <cerrno>
#include <cstring>

#include "ConsoleLog.h"

CTrace::CTrace() : m_start(std::chrono::steady_clock::now()) {}

CTrace::~CTrace() {
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
}

CStatus CTrace::Open(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "we");
    if (file == nullptr) {
        return CStatus::Failure("trace " + path + ": " + std::strerror(errno));
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
    m_file = file;
    m_path = path;
    m_writeError = 0;
    return CStatus::Ok();
}

CStatus CTrace::WriteStatus() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_writeError == 0) {
        return CStatus::Ok();
    }
    return CStatus::Failure("trace " + m_path + ": writing: " + std::strerror(m_writeError));
}

void CTrace::Event(TDirection direction, const TEvent& event) {
    if (!IsOpen()) {
        return;
    }
    nlohmann::ordered_json fields{{"dir", direction == TDirection::eIn ? "in" : "out"},
                                  {"type", event.type},
                                  {"id", event.id},
                                  {"size", event.size}};
    const char* bytes = static_cast<const char*>(event.data);
    if (event.size > 0 && bytes != nullptr) {
        const bool isRecord =
            event.type == EVENT_TYPE_USER &&
            (event.id == EVT_CONTROLLER_PREPARE_DONE || event.id == EVT_CONTROLLER_INSTALL_DONE ||
             event.id == EVT_CONTROLLER_PROGRESS || event.id == EVT_CONTROLLER_ABORTED) &&
            event.size >= kControllerNameSize;
        if (isRecord) {
            fields["name"] = std::string(bytes, strnlen(bytes, kControllerNameSize));
        } else {
            fields["name"] = std::string(bytes, event.size);
        }
        if (event.type == EVENT_TYPE_USER && event.id == EVT_CONTROLLER_PROGRESS &&
            event.size >= sizeof(TControllerProgress)) {
            TControllerProgress progress{};
            std::memcpy(&progress, bytes, sizeof progress);
            fields["percent"] = progress.percent;
        }
        if (isRecord && event.id != EVT_CONTROLLER_PROGRESS &&
            event.size >= sizeof(TControllerReply)) {
            TControllerReply reply{};
            std::memcpy(&reply, bytes, sizeof reply);
            fields["outcome"] = reply.outcome;
        }
    }
    Write("event", std::move(fields));
}

void CTrace::Log(const logging::TLogRecord& record) {
    if (!IsOpen()) {
        return;
    }
    Write("log", {{"category", logging::IControl::CategoryName(record.category)},
                  {"channel", logging::IControl::ChannelName(record.channel)},
                  {"function", record.function},
                  {"file", record.file},
                  {"line", record.line},
                  {"text", LogMessageText(record.text)}});
}

void CTrace::Command(const std::string& line, int status) {
    if (IsOpen()) {
        Write("cmd", {{"line", line}, {"status", status}});
    }
}

void CTrace::Mount(const std::string& device, const std::string& mountPoint, int format,
                   int status) {
    if (IsOpen()) {
        Write("mount", {{"device", device},
                        {"mountpoint", mountPoint},
                        {"format", format},
                        {"status", status}});
    }
}

void CTrace::Umount(const std::string& mountPoint, int status) {
    if (IsOpen()) {
        Write("umount", {{"mountpoint", mountPoint}, {"status", status}});
    }
}

void CTrace::Write(const std::string& kind, nlohmann::ordered_json fields) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    // "t" and "kind" lead every line, then the kind's own fields in the order given above.
    nlohmann::ordered_json line{{"t", seconds}, {"kind", kind}};
    for (auto& [key, value] : fields.items()) {
        line[key] = value;
    }
    // Non-UTF-8 bytes (a corrupt name) are replaced rather than aborting the trace.
    const std::string text =
        line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file != nullptr) {
        const bool written =
            std::fprintf(m_file, "%s\n", text.c_str()) >= 0 && std::fflush(m_file) == 0;
        if (!written && m_writeError == 0) {
            m_writeError = errno != 0 ? errno : EIO;
        }
    }
}
