/// The connection of the commands of tarn that outlive the bus.
#pragma once

#include <tarn/client.h>

namespace tools {

/// Connects, again and again after each loss, and says on standard error when there is no bus, when
/// it was lost, and when it is there again.
class connection {
public:
    /// On the loop's thread, as everything else here.
    explicit connection(tarn::client& client);

private:
    void follow(tarn::client::state now);

    bool connected_ = false;
    bool missing_ = false; ///< and the user knows
    tarn::utils::scoped_link states_;
    tarn::utils::scoped_link attempts_;
};

} // namespace tools
