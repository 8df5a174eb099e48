#include "common/chrono.h"

namespace cache {

Chrono::Chrono() : start_() {
    reset();
}

Chrono::~Chrono() = default;

void Chrono::reset() {
    start_ = std::chrono::steady_clock::now();
}

long long Chrono::elapsed() const {
    return Milliseconds(std::chrono::steady_clock::now() - start_);
}

long long Chrono::Milliseconds(std::chrono::nanoseconds span) {
    // duration_cast truncates toward zero.
    return std::chrono::duration_cast<std::chrono::milliseconds>(span).count();
}

}  // namespace cache
