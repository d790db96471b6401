#include "keychain/KeychainArchive.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace NorvAnalytic {

namespace {

// Marks our archives and their format version, so foreign bytes are told apart at once.
constexpr std::array<std::uint8_t, 4> kMagic = {'N', 'V', 'K', 0x01};

}  // namespace

Data KeychainArchive::archivedData(const std::string& item) {
    const nlohmann::json value = nlohmann::json::binary(Data(item.begin(), item.end()));
    Data archive(kMagic.begin(), kMagic.end());
    nlohmann::json::to_cbor(value, archive);
    return archive;
}

std::string KeychainArchive::unarchiveItem(const Data& archive) {
    if (archive.size() < kMagic.size() ||
        !std::equal(kMagic.begin(), kMagic.end(), archive.begin())) {
        throw DecodingError("the data is not an archived keychain item: unknown format marker");
    }
    nlohmann::json value;
    try {
        value = nlohmann::json::from_cbor(archive.begin() + kMagic.size(), archive.end());
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(error.what());
    }
    if (!value.is_binary()) {
        throw DecodingError("the archived keychain item is a CBOR " +
                            std::string(value.type_name()) + ", not a byte string");
    }
    const auto& bytes = value.get_binary();
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace NorvAnalytic
