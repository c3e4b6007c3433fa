/// One incoming call as its method handler sees it.
#pragma once

#include "client/identity.h"
#include "client/served_call.h"
#include "tarn/client.h"

#include <memory>
#include <mutex>

namespace tarn {

class app_side;

/// The context passed to a method handler. The connection that the call arrived on decides whether
/// it can still be answered.
class exchange_ctx final : public client::exchange_ctx {
public:
    /// Takes the arguments over from `call`.
    exchange_ctx(app_side& app, const std::shared_ptr<served_call>& call);
    /// One that is not to be answered.
    exchange_ctx(app_side& app, std::multimap<std::string, blob::attr>&& arguments);
    ~exchange_ctx() override;

    bool expired() const override;
    utils::link send(std::multimap<std::string, blob::attr> data,
                     const client::completion_handler& handler) override;
    void respond(const std::error_code& status) override;

private:
    /// The call if it can still be answered, else null. With the lock held.
    const std::shared_ptr<served_call>& open_call() const;

    app_side& app_;
    const life_id life_;
    mutable std::mutex lock_;           ///< guards call_, so that two answers cannot both win
    std::shared_ptr<served_call> call_; ///< emptied when the call is completed
};

} // namespace tarn
