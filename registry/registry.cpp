#include "registry/registry.h"

Registry::InvalidName::InvalidName(const std::string& name) : m_name(name), m_message("Invalid name: " + name) {}

// No blank behind the colon, unlike above: deliberate, the text is kept as it has always been.
Registry::InvalidJson::InvalidJson(const std::string& detail)
    : m_detail(detail), m_message("Invalid JSON format:" + detail) {}
