#pragma once
// The host's event record and the records of the update-controller conversation.
//
// A TEvent is passed by reference and lives only for the duration of the call that carries it;
// its payload is owned by the sender. Whoever keeps an event copies the payload first.

#include <cstddef>
#include <cstdint>

struct TEvent {
    int32_t type;      // event family (EVENT_TYPE_USER, EVENT_TYPE_TICK)
    int32_t id;        // event id within the family
    uint32_t size;     // payload bytes that data points at
    const void* data;  // payload; valid only during the call
};

// Event families.
constexpr int32_t EVENT_TYPE_TICK = 0;  // the periodic tick the loaders subscribe to
constexpr int32_t EVENT_TYPE_USER = 3;  // the controller conversation

// Controller event ids (all of type EVENT_TYPE_USER).
constexpr int32_t EVT_CONTROLLER_INIT = 200;          // in
constexpr int32_t EVT_CONTROLLER_INIT_DONE = 201;     // out, payload: the module name's characters
constexpr int32_t EVT_CONTROLLER_PREPARE = 202;       // in, payload: a module name
constexpr int32_t EVT_CONTROLLER_PREPARE_DONE = 203;  // out, TControllerReply
constexpr int32_t EVT_CONTROLLER_INSTALL = 204;       // in, payload: a module name
constexpr int32_t EVT_CONTROLLER_INSTALL_DONE = 205;  // out, TControllerReply
constexpr int32_t EVT_CONTROLLER_PROGRESS = 206;      // out, TControllerProgress
constexpr int32_t EVT_CONTROLLER_ABORT = 207;         // in, payload: a module name
constexpr int32_t EVT_CONTROLLER_ABORTED = 208;       // out, TControllerReply

// Size of the name field of the controller records: names are shorter than this.
constexpr std::size_t kControllerNameSize = 64;

// Payload of 203, 205 and 208: 68 bytes, host byte order.
struct TControllerReply {
    char name[kControllerNameSize];  // NUL-terminated, the whole field zeroed first
    int32_t outcome;                 // 1 = success, 0 = failure
};

// Payload of 206: 65 bytes, no padding after the last byte.
#pragma pack(push, 1)
struct TControllerProgress {
    char name[kControllerNameSize];  // NUL-terminated, the whole field zeroed first
    uint8_t percent;                 // normally 0..100
};
#pragma pack(pop)

static_assert(sizeof(TEvent) == 4 + 4 + 4 + sizeof(void*) + (sizeof(void*) == 8 ? 4 : 0),
              "TEvent is four words: type, id, size, data");
static_assert(offsetof(TEvent, type) == 0 && offsetof(TEvent, id) == 4 &&
                  offsetof(TEvent, size) == 8,
              "TEvent words are in the host's order");
static_assert(sizeof(TControllerReply) == 68, "TControllerReply is 68 bytes");
static_assert(offsetof(TControllerReply, outcome) == 64, "outcome follows the 64-byte name");
static_assert(sizeof(TControllerProgress) == 65, "TControllerProgress is 65 bytes");
static_assert(offsetof(TControllerProgress, percent) == 64, "percent follows the 64-byte name");

#if defined(__arm__)
// The in-car unit is 32-bit ARM: there the record is exactly the host's four 32-bit words.
static_assert(sizeof(TEvent) == 16, "TEvent is 16 bytes on the 32-bit target");
static_assert(offsetof(TEvent, data) == 12, "data is the fourth 32-bit word on the target");
#endif
