#include "registry/registry.h"

Registry::InvalidName::InvalidName(const std::string& name) : m_name(name), m_message("Invalid name: " + name) {}

// Deliberately no space after the colon, unlike above: callers know this text.
Registry::InvalidJson::InvalidJson(const std::string& detail)
    : m_detail(detail), m_message("Invalid JSON format:" + detail) {}
