// A packet filter's table in which long chains are trees, and look like the lists that they are.
#ifndef PLATFORM_RLV_SHAPED_SHAPED_BACKEND_H
#define PLATFORM_RLV_SHAPED_SHAPED_BACKEND_H

#include <memory>
#include <string>

#include "rlv/shape/shape.h"
#include "rlv/table/ruleset-backend.h"

namespace rlv {

// Whoever reads sees each chain with the rules that commands have put into it, and says what is to become of it in the
// same terms; how the rules lie in sub-chains (shape/shape.h) is known here alone. Of transactions that are bound to no
// generation, rules go into the chain itself: the next one that is bound puts them where they belong. What the kernel
// does not take as a tree it is given as a list.
//
// Handles of rules that were sent from here are numbers of our own. They hold for as long as nobody else changes the
// ruleset.
std::unique_ptr<RulesetBackend> makeShapedBackend(std::unique_ptr<RulesetBackend> inner, std::string chainPrefix,
                                                  const shape::Limits &limits);

} // namespace rlv

#endif
