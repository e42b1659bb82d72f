// Every error code the library reports, with its constant name. Codes are
// part of the interface: never renumber. Several constants share a code on
// purpose (all JSON type errors are -52004, for example); callers that need
// to tell them apart read "error_constant" in the report.
#pragma once

#include <cstdint>

namespace zterr {

#define ZTERR_CODE_TABLE(X)                                      \
    X(ztapalerr_memoryFull, -52000)                              \
    X(ztapalerr_featureUnsupported, -52002)                      \
    X(ztapalerr_softwareFaultAPALInternalUseOnly, -52003)        \
    X(jsonErrorsNotAnArray, -52004)                              \
    X(jsonErrorsNotAnObject, -52004)                             \
    X(jsonErrorsTypeMismatch, -52004)                            \
    X(errCode, -52004)                                           \
    X(ztapalerr_invalidParameter, -52005)                        \
    X(jsonErrorsInvalidJSON, -52005)                             \
    X(ztapalerr_resourceNotFound, -52006)                        \
    X(jsonErrorsObjectItemNotFound, -52006)                      \
    X(jsonErrorsArrayItemOutOfBounds, -52006)                    \
    X(ztapalerr_operationTimedOut, -52007)                       \
    X(ztapalerr_osFault, -52008)                                 \
    X(ztapalerr_resourceNotInitialized, -52010)                  \
    X(ztapalerr_threadAlreadyStarted, -52016)                    \
    X(ztapalerr_invalidStateTransition, -52017)                  \
    X(ztapalerr_bufferTooSmall, -52019)                          \
    X(ztapalerr_resourceRemoved, -52020)                         \
    X(ztapalerr_communicationsFault, -52024)                     \
    X(ztsyncdomainerr_conflictingCoherencyRequirements, -1074100993) \
    X(kInternalSoftwareError, -411350)                           \
    X(kInternalSoftwareErrorFailedInitialize, -411351)           \
    X(kInvalidEndStationURI, -411352)                            \
    X(kInvalidURIPrefix, -411353)                                \
    X(kNetworkClientBadRequestError, -411354)                    \
    X(kNetworkClientUnauthorizedError, -411355)                  \
    X(kNetworkClientNotFoundError, -411356)                      \
    X(kNetworkClientRequestTimeoutError, -411357)                \
    X(kNetworkClientError, -411358)                              \
    X(kNetworkServerError, -411359)                              \
    X(kInvalidJSONResponseFromServer, -411360)                   \
    X(kInternalSoftwareErrorUnknownNetworkError, -411361)        \
    X(kNetworkClientUnsupportedMediaType, -411370)               \
    X(kNetworkClientInProgress, 411369)

// code::name is the numeric code; name::name its constant text.
namespace code {
#define ZTERR_DECLARE_CODE(name, value) constexpr std::int32_t name = (value);
ZTERR_CODE_TABLE(ZTERR_DECLARE_CODE)
#undef ZTERR_DECLARE_CODE
}  // namespace code

namespace name {
#define ZTERR_DECLARE_NAME(name, value) constexpr const char* name = #name;
ZTERR_CODE_TABLE(ZTERR_DECLARE_NAME)
#undef ZTERR_DECLARE_NAME
}  // namespace name

}  // namespace zterr
