#include <NorvAnalytic/HttpClient.h>

#include <utility>

namespace NorvAnalytic {

Error HttpClient::error(HttpClientErrorCode code, std::string description) {
    return Error{kHttpClientErrorDomain, code, std::move(description), std::nullopt, nullptr};
}

}  // namespace NorvAnalytic
