#include "iptables/RlvHandler.h"

#include <cstdio>
#include <stdexcept>

#include "log.h"

namespace iptables {

rlv_handle RlvHandler::m_rlvHandler = 0;

RlvHandler::RlvHandler() {
    const int result = rlv_initialize(&m_rlvHandler);
    if (result != 0) {
        char message[255];
        std::snprintf(message, sizeof message, "Failed to initialize RLV: 0x%x", static_cast<unsigned>(result));
        throw std::runtime_error(message);
    }
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "RlvHandler constructor");
}

RlvHandler::~RlvHandler() {
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "RlvHandler destructor");
    if (m_rlvHandler != 0 && rlv_deinitialize(m_rlvHandler) != 0)
        NYR_LOG_ERROR(NYR_LOG_TAG_ENGINE, "Something went wrong: Failed to deinitialize RLV");
    m_rlvHandler = 0;
}

rlv_handle RlvHandler::Get() { return m_rlvHandler; }

} // namespace iptables
