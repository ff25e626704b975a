#include "Benchmarks/BareDeviceNodes.h"
#include "Benchmarks/StereoFormat.h"

#include <pipewire/pipewire.h>
#include <spa/pod/builder.h>

#include <csignal>
#include <cstring>
#include <initializer_list>

namespace velorane::bench {

namespace {

struct Node
{
    pw_stream* stream = nullptr;
    spa_hook listener{};
    bool sink = false;
};

void OnProcess(void* data)
{
    auto* node = static_cast<Node*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(node->stream);
    if (!buffer) {
        return;
    }
    spa_data& plane = buffer->buffer->datas[0];
    if (!node->sink && plane.data && plane.chunk) {
        uint64_t frames = plane.maxsize / 4;
        if (buffer->requested > 0 && buffer->requested < frames) {
            frames = buffer->requested;
        }
        std::memset(plane.data, 0, frames * 4);
        plane.chunk->offset = 0;
        plane.chunk->stride = 4;
        plane.chunk->size = static_cast<uint32_t>(frames * 4);
    }
    pw_stream_queue_buffer(node->stream, buffer);
}

void OnSignal(void* data, int)
{
    pw_main_loop_quit(static_cast<pw_main_loop*>(data));
}

bool Connect(pw_core* core, Node& node, const pw_stream_events* events)
{
    pw_properties* properties = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CLASS, node.sink ? "Audio/Sink" : "Audio/Source",
        PW_KEY_NODE_NAME, node.sink ? "bare-speaker" : "bare-microphone", PW_KEY_NODE_DESCRIPTION,
        node.sink ? "Bare Speaker" : "Bare Microphone", PW_KEY_NODE_ALWAYS_PROCESS, "true",
        PW_KEY_NODE_LATENCY, "480/48000", nullptr);
    node.stream = pw_stream_new(core, node.sink ? "Bare Speaker" : "Bare Microphone", properties);
    if (!node.stream) {
        return false;
    }
    pw_stream_add_listener(node.stream, &node.listener, events, &node);
    uint8_t buffer[1024];
    spa_pod_builder builder;
    spa_pod_builder_init(&builder, buffer, sizeof(buffer));
    const spa_pod* params[1] = {StereoFormat(&builder)};
    return pw_stream_connect(
               node.stream, node.sink ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT, PW_ID_ANY,
               static_cast<pw_stream_flags>(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS),
               params, 1) >= 0;
}

} // namespace

int RunBareDeviceNodes()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    pw_init(nullptr, nullptr);
    pw_main_loop* loop = pw_main_loop_new(nullptr);
    pw_loop* inner = pw_main_loop_get_loop(loop);
    pw_loop_add_signal(inner, SIGTERM, &OnSignal, loop);
    pw_loop_add_signal(inner, SIGINT, &OnSignal, loop);
    pw_context* context =
        pw_context_new(inner, pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
    pw_core* core = context ? pw_context_connect(context, nullptr, 0) : nullptr;
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.process = &OnProcess;
    Node sink;
    sink.sink = true;
    Node source;
    int result = 1;
    if (core && Connect(core, sink, &events) && Connect(core, source, &events)) {
        pw_main_loop_run(loop);
        result = 0;
    }
    for (Node* node : {&sink, &source}) {
        if (node->stream) {
            pw_stream_destroy(node->stream);
        }
    }
    if (core) {
        pw_core_disconnect(core);
    }
    if (context) {
        pw_context_destroy(context);
    }
    pw_main_loop_destroy(loop);
    pw_deinit();
    return result;
}

} // namespace velorane::bench
