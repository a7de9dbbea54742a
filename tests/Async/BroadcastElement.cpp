// Shares elements of the type ELEMENT.
#include <memory>
#include <optional>

#include "VantorqFoundation/AsyncBroadcast.h"

namespace {

struct Source {
    struct AsyncIterator {
        static vantorq::Async<std::optional<ELEMENT>> next() {
            return vantorq::Async<std::optional<ELEMENT>>::ready(std::nullopt);
        }
    };
    static AsyncIterator makeAsyncIterator() { return {}; }
};

}  // namespace

int main() {
    const auto shared = vantorq::broadcast(Source(), vantorq::BufferingPolicy::unbounded());
    auto iterator = shared->makeAsyncIterator();
    return vantorq::syncWait(iterator.next()).has_value() ? 1 : 0;
}
