/// Links whose lifetime is that of an object.
#include "tarn/link.h"

#include "counted.h"

namespace tarn::misc {

utils::link create_link(const std::shared_ptr<void>& owner, const std::function<void()>& releaser) {
    class link_impl final : public utils::link::impl {
    public:
        link_impl(const std::shared_ptr<void>& watched, const std::function<void()>& to_call)
            : owner_(watched)
            , releaser_(to_call) {}

        void release() override { releaser_(); }

        bool active() const override { return !owner_.expired(); }

    private:
        const std::weak_ptr<void> owner_;
        const std::function<void()> releaser_;
    };

    return aggregate_adapter<utils::link>(tarn::make_counted<link_impl>(owner, releaser));
}

} // namespace tarn::misc
