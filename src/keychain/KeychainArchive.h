#pragma once

#include <NorvAnalytic/Types.h>

#include <stdexcept>
#include <string>

namespace NorvAnalytic {

// How a keychain item (a string of any bytes) is kept as a payload: a short magic prefix and
// the CBOR encoding of the string's bytes as a byte string, so that invalid UTF-8 survives.
class KeychainArchive {
public:
    // Raised when a payload is not an archive made by archivedData; what() is the reason.
    class DecodingError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    static Data archivedData(const std::string& item);
    // Throws DecodingError for anything archivedData did not make.
    static std::string unarchiveItem(const Data& archive);
};

}  // namespace NorvAnalytic
