#include <ctime>

// What the library must not have: an object whose value is computed when it is loaded.
extern const std::time_t loadedAt;
const std::time_t loadedAt = std::time(nullptr);
