// The syncable device proxy on fuzz requirements and fuzz device answers.
//
// The proxy reaches its device through a stand-in resource manager that
// takes every PUT and answers every GET with fuzz text. One input gives two
// requirements documents, the second domain's URI (the first domain's again,
// or another), whether the first domain is cleared in between, and the
// device's answer. The proxy then gets both documents, is asked isCoherent
// and toJson.
//
// What must hold:
//  - only zterr::Exception comes out, with a valid report, or one of the two
//    numeric-cast failures of a 32-bit read (documented to pass through to
//    the export frame, whose translation must turn it into a valid report);
//  - a PUT is sent exactly for each set that returns normally, and the set of
//    domains grows only then; a failed set leaves it as it was;
//  - the conflict error comes only while another set is in force, and the
//    same document given twice never conflicts;
//  - isCoherent and toJson return only for an answer the strict validator
//    accepts; toJson's text is one JSON object by the strict validator whose
//    "uri" is the proxy's URI and whose "syncDomainUris" lists as many
//    domains as are in force.
#include <fuzzer/FuzzedDataProvider.h>

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <string>

#include "fuzzSupport.h"
#include "json/jsonKeyGetters.h"
#include "remote/resourceManagerInterface.h"
#include "syncdomain/syncableDeviceProxy.h"

namespace {

using ztsdfuzz::fail;
using ztsdfuzz::require;

constexpr const char* kDeviceUri = "/127.0.0.1:9/ztsdwebs/resources/ztsd/syncableDevices/chassis0";
constexpr std::int32_t kConflict = -1074100993;

class FuzzResources : public zt::syncdomain::ResourceManagerInterface {
public:
    FuzzResources(std::string answer, int* puts) : answer_(std::move(answer)), puts_(puts) {}
    std::string listResources(const std::string&) override { return "{}"; }
    std::string getResource(const std::string&) override { return answer_; }
    std::string getTimescaleInfo(const std::string&) override { return "{}"; }
    void putResource(const std::string&, const std::string&) override { ++*puts_; }

private:
    std::string answer_;
    int* puts_;
};

// Runs one proxy call; returns the code it raised (0 when it returned).
template <typename Call>
std::int32_t attempt(const char* where, Call&& call) {
    try {
        call();
        return 0;
    } catch (const zterr::Exception& e) {
        ztsdfuzz::requireValidReport(e.what(), where);
        return e.code();
    } catch (const ztsynctools::NegativeOverflow&) {
        ztsdfuzz::requireTranslatedReport(where);
    } catch (const ztsynctools::PositiveOverflow&) {
        ztsdfuzz::requireTranslatedReport(where);
    }
    return -1;  // a numeric-cast failure
}

// toJson names the proxy by its own URI and lists the domains in force.
void checkToJson(const std::string& json, std::size_t domains) {
    cJSON* root = cJSON_Parse(json.c_str());
    const cJSON* uri = cJSON_GetObjectItem(root, "uri");
    const cJSON* list = cJSON_GetObjectItem(root, "syncDomainUris");
    const bool ok = cJSON_IsString(uri) && std::string(uri->valuestring) == kDeviceUri && cJSON_IsArray(list) &&
                    static_cast<std::size_t>(cJSON_GetArraySize(list)) == domains;
    cJSON_Delete(root);
    if (!ok) fail("toJson text does not carry the proxy's URI and domains", json);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string first = in.ConsumeRandomLengthString(512);
    const bool sameText = in.ConsumeBool();
    const std::string second = sameText ? first : in.ConsumeRandomLengthString(512);
    const bool sameDomain = in.ConsumeBool();
    const bool clearBetween = in.ConsumeBool();
    const std::string answer = in.ConsumeRemainingBytesAsString();

    int puts = 0;
    ztsdlib::SyncableDeviceProxy proxy(kDeviceUri, std::make_unique<FuzzResources>(answer, &puts));

    const std::int32_t firstCode =
        attempt("first set", [&] { proxy.setCoherencyRequirements(first, "/localhost/domains/a"); });
    require(firstCode != kConflict, "a fresh proxy reported a conflict");
    require(puts == (firstCode == 0 ? 1 : 0) && proxy.syncDomainCount() == static_cast<std::size_t>(puts),
            "first set: PUTs and domains do not match the outcome");
    if (clearBetween) proxy.clearCoherencyRequirements("/localhost/domains/a");
    const std::size_t domainsBefore = proxy.syncDomainCount();

    const std::int32_t secondCode = attempt("second set", [&] {
        proxy.setCoherencyRequirements(second, sameDomain ? "/localhost/domains/a" : "/localhost/domains/b");
    });
    if (secondCode == kConflict) require(domainsBefore > 0, "conflict with no domain in force");
    if (sameText && firstCode == 0) require(secondCode == 0, "the same requirements conflicted", second);
    const int expectedPuts = (firstCode == 0) + (secondCode == 0);
    require(puts == expectedPuts, "PUT count does not match the sets that returned");
    if (secondCode != 0) require(proxy.syncDomainCount() == domainsBefore, "a failed set changed the domains");
    if (secondCode == 0)
        require(proxy.syncDomainCount() == domainsBefore + (sameDomain && domainsBefore ? 0 : 1),
                "a set did not record its domain once");

    const bool answerValid = answer.find('\0') == std::string::npos && ztsdfuzz::validatesStrictly(answer);
    std::uint32_t losses = 0;
    if (attempt("isCoherent", [&] { proxy.isCoherent(&losses); }) == 0)
        require(answerValid, "isCoherent read an answer the validator refuses");
    std::string json;
    if (attempt("toJson", [&] { json = proxy.toJson(); }) == 0) {
        require(answerValid, "toJson read an answer the validator refuses");
        ztsdfuzz::requireJsonObject(json.c_str(), "toJson text");
        checkToJson(json, proxy.syncDomainCount());
    }
    return 0;
}
