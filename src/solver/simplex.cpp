#include "src/solver/simplex.h"

#include <stdexcept>

namespace seg {

void checkLabelCount(int L, int limit, const std::string& what) {
    if (L > limit)
        throw std::runtime_error(std::to_string(L) + " labels are more than " + what + " holds (at most " +
                                 std::to_string(limit) + ")");
}

}  // namespace seg
