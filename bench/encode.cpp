/// Encoding: from values to a message.
#include "messages.h"
#include "micro.h"

#include "tarn/blob/buf.h"

namespace tarn::bench {
namespace {

void tarn_new(benchmark::State& state, const sample_message& sample) {
    turns measured(state);
    for (auto turn : state) {
        blob::buf message(sample.table);
        benchmark::DoNotOptimize(message.native()->head);
    }
    measured.stop();
}

void plain_new(benchmark::State& state, const sample_message& sample) {
    turns measured(state);
    for (auto turn : state) {
        blob_buf message{};
        blob_buf_init(&message, 0);
        add_plain(message, sample.fields);
        benchmark::DoNotOptimize(message.head);
        blob_buf_free(&message);
    }
    measured.stop();
}

void tarn_kept(benchmark::State& state, const sample_message& sample) {
    blob::buf message;
    turns measured(state);
    for (auto turn : state) {
        message.assign(sample.table);
        benchmark::DoNotOptimize(message.native()->head);
    }
    measured.stop();
}

void plain_kept(benchmark::State& state, const sample_message& sample) {
    blob_buf message{};
    turns measured(state);
    for (auto turn : state) {
        blob_buf_init(&message, 0);
        add_plain(message, sample.fields);
        benchmark::DoNotOptimize(message.head);
    }
    measured.stop();
    blob_buf_free(&message);
}

} // namespace

void register_encoding() {
    for (const sample_message& sample : sample_messages()) {
        const auto add = [&sample](const char* what, auto* function, const char* side) {
            benchmark::RegisterBenchmark((what + sample.label + '/' + side).c_str(), function,
                                         sample);
        };
        add("encode, ", tarn_new, "tarn");
        add("encode, ", plain_new, "plain");
        add("encode, builder kept, ", tarn_kept, "tarn");
        add("encode, builder kept, ", plain_kept, "plain");
    }
}

} // namespace tarn::bench
