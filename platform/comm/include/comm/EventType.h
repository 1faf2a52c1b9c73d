#ifndef COMM_EVENTTYPE_H
#define COMM_EVENTTYPE_H

namespace comm {

/// The identity of a class of events: one static object per class, compared by address. An identity holds within
/// one shared library only.
class EventType {
public:
    EventType() noexcept = default;
    EventType(const EventType&) = delete;
    EventType& operator=(const EventType&) = delete;

    friend bool operator==(const EventType& a, const EventType& b) noexcept { return &a == &b; }
    friend bool operator!=(const EventType& a, const EventType& b) noexcept { return &a != &b; }
};

} // namespace comm

#endif
