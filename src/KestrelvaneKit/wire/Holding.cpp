#include "KestrelvaneKit/wire/Holding.h"

namespace kestrelvane {

std::string_view wireString(Holding::Kind kind) noexcept {
    switch (kind) {
    case Holding::Kind::saved:
        return "saved";
    case Holding::Kind::partial:
        return "partial";
    case Holding::Kind::none:
        break;
    }
    return "none";
}

} // namespace kestrelvane
