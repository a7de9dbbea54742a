// Gives the elements of `stream`, of the type ELEMENT, to more than one consumer: the expression
// SHARE.
#include <memory>
#include <optional>

#include "VantorqFoundation/AsyncBroadcast.h"
#include "VantorqFoundation/AsyncSequenceHelpers.h"

int main() {
    using Stream = vantorq::AsyncStream<ELEMENT>;
    const Stream stream = Stream::unfolding(
        [] { return vantorq::Async<std::optional<ELEMENT>>::ready(std::nullopt); });
    [[maybe_unused]] const auto shared = SHARE;
}
