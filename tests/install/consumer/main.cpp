#include <cstdio>

#include <VantorqFoundation/VantorqFoundation.h>

// Takes a class through the installed library's runtime, so that both headers and code are used.
int main() {
    const vantorq::Ref<vantorq::NSString> greeting = vantorq::NSString::string("installed");
    std::printf("%s\n", greeting->utf8().c_str());
    return 0;
}
