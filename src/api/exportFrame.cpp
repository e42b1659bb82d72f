#include "api/exportFrame.h"

#include "errors/exception.h"

namespace ztsdlib {
namespace api {

bool reportMissingParameter(zterr_Status* status, std::int32_t line, std::initializer_list<Param> params) noexcept {
    for (const Param& p : params) {
        if (p.value) continue;
        zterr::report(status, ZTERR_SITE_AT(kExportFile, line, zterr::name::ztapalerr_invalidParameter),
                      zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                      {{"message", "Encountered missing parameter needed for task completion."}, {p.name, "nullptr"}});
        return true;
    }
    return false;
}

}  // namespace api
}  // namespace ztsdlib
