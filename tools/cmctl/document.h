// The default-configuration document that export writes and import reads: the layout the service
// loads at start, {"config": {key: base64 of the stored text}, "metadata": {}}.
//
// The service has no method that answers a stored text as it is: its readers unwrap the envelope
// that set_config_with_ts writes ({"data":...,"ts":...}). So export rebuilds the stored text from
// what the readers answer (value and timestamp), and import compares what the readers would
// answer for the document's text with what they answer now.
#ifndef CMCTL_DOCUMENT_H
#define CMCTL_DOCUMENT_H

#include <cstdint>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Cmctl {

// One key as the service's readers answer it; ts 0: no timestamp.
struct CEntry {
    std::string key;
    std::string value;
    uint64_t ts = 0;
};

bool same_reading(const CEntry& a, const CEntry& b);

// The entries of a get_config_batch_with_ts answer, in its order; false when the text is not such
// an answer.
bool parse_batch(const std::string& text, std::vector<CEntry>& entries);
// The key names of a get_config_keylist answer; false when the text is not such an answer.
bool parse_keylist(const std::string& text, std::vector<std::string>& keys);

// The stored text that reads back as entry: the value, or with a timestamp the service's envelope.
std::string stored_text(const CEntry& entry);
// How the readers answer a stored text: an envelope's data and ts, anything else as it is.
CEntry reading_of(const std::string& key, const std::string& stored);
// An envelope set_config_with_ts can write again: exactly a string "data" that is UTF-8 text and a
// non-zero "ts".
bool split_envelope(const std::string& stored, std::string& data, uint64_t& ts);

// The whole document, tab-indented like the service's own.
std::string make_document(const std::vector<CEntry>& entries);

struct CStoredItem {
    std::string key;
    std::string stored;  // the decoded text
};
// The "config" member of a document, values decoded; false with a reason in error when the text
// is not such a document, a value is not strict base64, or a key or text is not UTF-8.
bool read_document(const std::string& text, std::vector<CStoredItem>& items, std::string& error);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
