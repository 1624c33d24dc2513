#include "vpk-pil/vpk-pil.h"

PolicyStorage *PolicyStorage::backend = nullptr;
std::mutex PolicyStorage::dbLock;

PolicyStorage::~PolicyStorage() = default;
