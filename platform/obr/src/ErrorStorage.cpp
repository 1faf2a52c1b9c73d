#include <obr/ErrorStorage.h>

#include <utility>

namespace obr {
namespace {

// Static objects may record errors after the thread's own objects were destroyed, so the slot is reached through a
// plain pointer, and its owner only gives back what a thread that ends leaves behind.
thread_local ErrorStorage::Slot* t_slot = nullptr;

struct SlotOwner {
    ~SlotOwner()
    {
        delete t_slot;
        t_slot = nullptr;
    }
    void own() noexcept {}
};
thread_local SlotOwner t_owner;
thread_local bool t_isOwned = false;

ErrorStorage::Slot& slot()
{
    if (t_slot == nullptr) {
        t_slot = new ErrorStorage::Slot;
        if (!t_isOwned) {
            t_isOwned = true;
            t_owner.own();
        }
    }
    return *t_slot;
}

} // namespace

bool ErrorStorage::isError() noexcept
{
    return t_slot != nullptr && t_slot->isError;
}

std::string ErrorStorage::reason()
{
    return isError() ? t_slot->reason : std::string();
}

void ErrorStorage::ack() noexcept
{
    if (t_slot != nullptr) {
        t_slot->isError = false;
        t_slot->reason.clear();
    }
}

std::string ErrorStorage::takeReason()
{
    std::string taken = reason();
    ack();
    return taken;
}

void ErrorStorage::exchange(Slot& other) noexcept
{
    std::swap(slot(), other);
}

} // namespace obr
