// The generated configuration: keys "bench.key.000000" upwards, each holding the envelope a
// "set_config_with_ts" would store ({"data":"value-000000","ts":...}), base64-coded as the
// default file wants it.
#ifndef QUOREL_BENCH_BENCH_FIXTURE_H
#define QUOREL_BENCH_BENCH_FIXTURE_H

#include <cstddef>
#include <string>

namespace Quorel {
namespace Iot {
namespace Bench {

std::string key_name(size_t index);
// What "get_config" answers for key_name(index): the envelope's "data".
std::string key_value(size_t index);
// A pattern matching exactly one key in a hundred (indices divisible by 100).
extern const char kOnePercentPattern[];
// A pattern matching every key.
extern const char kAllPattern[];

// Replaces the file's content with text.
bool write_text_file(const std::string& path, const std::string& text, std::string& error);

// Writes a default file with keys 0 .. count-1 and an empty "metadata".
bool write_default_file(const std::string& path, size_t count, std::string& error);

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
