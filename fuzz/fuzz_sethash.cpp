// SHA256Hash::SetHash with any text and with raw bytes; the decoded value
// must stay 32 bytes, keep its text, and survive a copy.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ZELKHash.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    SHA256Hash fromText;
    fromText.SetHash(text);
    if (!fromText.HasBytes() || fromText.Length() != 32 || fromText.Text() != text) {
        abort();
    }
    SHA256Hash copy(fromText);
    if (memcmp(copy.Bytes(), fromText.Bytes(), 32) != 0 || copy.Text().size() != 64) {
        abort();
    }
    // The copy's lowercase text decodes back to the same bytes.
    SHA256Hash again;
    again.SetHash(copy.Text());
    if (memcmp(again.Bytes(), copy.Bytes(), 32) != 0) {
        abort();
    }

    if (size >= 32) {
        SHA256Hash fromBytes;
        fromBytes.SetHash(reinterpret_cast<const char*>(data));
        if (memcmp(fromBytes.Bytes(), data, 32) != 0) {
            abort();
        }
        fromText = fromBytes;  // replaces an existing digest
        if (fromText.Text() != fromBytes.Text()) {
            abort();
        }
    }
    fromText.SetHash(static_cast<const char*>(nullptr));  // changes nothing
    return 0;
}
