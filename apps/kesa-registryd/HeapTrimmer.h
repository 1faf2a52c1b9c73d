#ifndef KESA_REGISTRYD_HEAPTRIMMER_H
#define KESA_REGISTRYD_HEAPTRIMMER_H

#include <cstddef>

namespace registryd {

/// Gives memory back to the system that the heap keeps though it is free, as after the end of a process that had much
/// registered: by itself it gives back only what lies at its end.
class HeapTrimmer {
public:
    /// To be called every few seconds. Does nothing while there is little to give back, or what could not be given
    /// back the last time.
    void look();

private:
    struct Usage {
        std::size_t inUse = 0;
        std::size_t resident = 0;
    };
    static Usage measure();

    Usage m_left; ///< after the last time
};

} // namespace registryd

#endif
