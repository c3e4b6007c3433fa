/// Decoding: from a message to values.
#include "messages.h"
#include "micro.h"

#include "tarn/blob/readers.h"

#include <stdexcept>

namespace tarn::bench {
namespace {

/// A message encoded by libubox, freed at the end.
class encoded {
public:
    explicit encoded(const sample_message& sample) {
        blob_buf_init(&buffer_, 0);
        add_plain(buffer_, sample.fields);
    }
    ~encoded() { blob_buf_free(&buffer_); }
    encoded(const encoded&) = delete;
    encoded& operator=(const encoded&) = delete;

    blob_attr* get() const { return buffer_.head; }

private:
    blob_buf buffer_{};
};

/// What a plain program does with a field that it has found: numbers are read, texts stay where
/// they are.
void read_value(blob_attr* field) {
    switch (blobmsg_type(field)) {
    case BLOBMSG_TYPE_STRING:
        benchmark::DoNotOptimize(blobmsg_get_string(field));
        break;
    case BLOBMSG_TYPE_INT64:
        benchmark::DoNotOptimize(blobmsg_get_u64(field));
        break;
    case BLOBMSG_TYPE_INT8:
        benchmark::DoNotOptimize(blobmsg_get_u8(field));
        break;
    default:
        benchmark::DoNotOptimize(blobmsg_get_u32(field));
    }
}

void tarn_table(benchmark::State& state, const sample_message& sample) {
    const encoded message(sample);
    turns measured(state);
    for (auto turn : state) {
        blob::table fields = blob::utils::to_table(message.get());
        benchmark::DoNotOptimize(fields);
    }
    measured.stop();
}

void plain_parse(benchmark::State& state, const sample_message& sample) {
    const encoded message(sample);
    std::vector<blobmsg_policy> policy;
    for (const plain_field& field : sample.fields) {
        blobmsg_policy entry{};
        entry.name = field.name.c_str();
        entry.type = static_cast<decltype(entry.type)>(field.type);
        policy.push_back(entry);
    }
    std::vector<blob_attr*> found(policy.size());
    turns measured(state);
    for (auto turn : state) {
        blobmsg_parse(policy.data(), static_cast<int>(policy.size()), found.data(),
                      blob_data(message.get()), static_cast<unsigned>(blob_len(message.get())));
        for (blob_attr* const field : found) {
            if (field == nullptr) {
                state.SkipWithError("a field is missing");
                return;
            }
            read_value(field);
        }
    }
    measured.stop();
}

void plain_walk(benchmark::State& state, const sample_message& sample) {
    const encoded message(sample);
    turns measured(state);
    for (auto turn : state) {
        std::size_t remaining = blob_len(message.get());
        std::size_t fields = 0;
        blob_attr* field = nullptr;
        __blob_for_each_attr(field, blob_data(message.get()), remaining) {
            if (blobmsg_check_attr(field, true)) {
                benchmark::DoNotOptimize(blobmsg_name(field));
                read_value(field);
                ++fields;
            }
        }
        if (fields != sample.fields.size()) {
            state.SkipWithError("a field is missing");
            return;
        }
    }
    measured.stop();
}

} // namespace

void register_decoding() {
    for (const sample_message& sample : sample_messages()) {
        const auto add = [&sample](const char* what, auto* function, const char* side) {
            benchmark::RegisterBenchmark((what + sample.label + '/' + side).c_str(), function,
                                         sample);
        };
        add("decode, ", tarn_table, "tarn");
        add("decode, ", plain_parse, "plain");
        add("decode, beside a walk, ", tarn_table, "tarn");
        add("decode, beside a walk, ", plain_walk, "plain");
    }
}

} // namespace tarn::bench
