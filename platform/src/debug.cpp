// Debugger output: DbgPrint and its sink.
//
// DbgPrint may be called at any IRQL, from any thread, concurrently. The sink
// is host code and is guarded by a host mutex; it is called with that mutex
// held, so messages never interleave and a sink callback must not call
// DbgPrint itself.
#include <kplat/platform.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

namespace {

// The platform formats a message into a 512-byte buffer; a longer message is
// cut to it and its last byte becomes a line break.
constexpr size_t kMaxMessage = 512;

struct Sink {
    enum class Kind { Stderr, File, Callback } kind = Kind::Stderr;
    std::shared_ptr<FILE> file;  // shared with a saved copy (DebugCapture)
    std::function<void(const char*)> callback;
};

struct DebugState {
    std::mutex mutex;  // guards sink, held while the sink writes
    Sink sink;
};

// Never destroyed: DbgPrint may run from static destructors.
DebugState& D() {
    static DebugState* state = new DebugState;
    return *state;
}

void Install(Sink sink) {
    DebugState& d = D();
    std::lock_guard<std::mutex> lock(d.mutex);
    d.sink = std::move(sink);
}

}  // namespace

ULONG DbgPrint(PCSTR Format, ...) {
    char text[kMaxMessage + 1];
    va_list args;
    va_start(args, Format);
    int n = vsnprintf(text, sizeof text, Format, args);
    va_end(args);
    if (n < 0) return (ULONG)STATUS_INVALID_PARAMETER;
    if ((size_t)n > kMaxMessage) {
        text[kMaxMessage - 1] = '\n';
        text[kMaxMessage] = '\0';
    }
    DebugState& d = D();
    std::lock_guard<std::mutex> lock(d.mutex);
    switch (d.sink.kind) {
    case Sink::Kind::Stderr:
        fputs(text, stderr);
        break;
    case Sink::Kind::File:
        fputs(text, d.sink.file.get());
        fflush(d.sink.file.get());
        break;
    case Sink::Kind::Callback:
        d.sink.callback(text);
        break;
    }
    return STATUS_SUCCESS;
}

namespace kplat {

void SetDebugSinkStderr() { Install(Sink()); }

// The file is truncated and written through (flushed after every message).
bool SetDebugSinkFile(const char* path) {
    FILE* f = fopen(path, "w");
    if (f == nullptr) return false;
    Sink sink;
    sink.kind = Sink::Kind::File;
    sink.file = std::shared_ptr<FILE>(f, fclose);
    Install(std::move(sink));
    return true;
}

void SetDebugSinkCallback(std::function<void(const char* text)> callback) {
    if (!callback) {
        SetDebugSinkStderr();
        return;
    }
    Sink sink;
    sink.kind = Sink::Kind::Callback;
    sink.callback = std::move(callback);
    Install(std::move(sink));
}

struct DebugCapture::State {
    mutable std::mutex mutex;  // guards text
    std::string text;
    Sink previous;
};

DebugCapture::DebugCapture() : mState(new State) {
    State* state = mState;
    Sink sink;
    sink.kind = Sink::Kind::Callback;
    sink.callback = [state](const char* text) {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->text += text;
    };
    DebugState& d = D();
    std::lock_guard<std::mutex> lock(d.mutex);
    state->previous = std::move(d.sink);
    d.sink = std::move(sink);
}

DebugCapture::~DebugCapture() {
    Install(std::move(mState->previous));
    delete mState;
}

std::string DebugCapture::Text() const {
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->text;
}

std::string DebugCapture::Take() {
    std::lock_guard<std::mutex> lock(mState->mutex);
    std::string out;
    out.swap(mState->text);
    return out;
}

bool DebugCapture::Contains(const std::string& needle) const {
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->text.find(needle) != std::string::npos;
}

}  // namespace kplat
