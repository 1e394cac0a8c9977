// The introspection data of the interface. Each list ends with an empty record.
#include "dbus/registry_adaptor.h"

namespace com {
namespace tavimesh {
namespace {

using Argument = DBus::IntrospectedArgument;

constexpr bool kIn = true;
constexpr bool kOut = false;

const Argument kRead[] = {
    {"section", "s", kIn}, {"key", "s", kIn}, {"value_ret", "s", kOut}, {nullptr, nullptr, false}};
const Argument kWrite[] = {{"section", "s", kIn}, {"key", "s", kIn}, {"value", "s", kIn}, {nullptr, nullptr, false}};
const Argument kDeleteKey[] = {{"section", "s", kIn}, {"key", "s", kIn}, {nullptr, nullptr, false}};
const Argument kDeleteSection[] = {{"section", "s", kIn}, {nullptr, nullptr, false}};
const Argument kNone[] = {{nullptr, nullptr, false}};
const Argument kKeyExists[] = {
    {"section", "s", kIn}, {"key", "s", kIn}, {"exists_ret", "b", kOut}, {nullptr, nullptr, false}};
const Argument kSectionExists[] = {{"section", "s", kIn}, {"exists_ret", "b", kOut}, {nullptr, nullptr, false}};
const Argument kSectionList[] = {{"sections_ret", "as", kOut}, {nullptr, nullptr, false}};
const Argument kKeyList[] = {{"section", "s", kIn}, {"keys_values_ret", "a{ss}", kOut}, {nullptr, nullptr, false}};
const Argument kReadAllJson[] = {{"registry_ret", "s", kOut}, {nullptr, nullptr, false}};
const Argument kWriteJson[] = {{"registry", "s", kIn}, {nullptr, nullptr, false}};

const DBus::IntrospectedMethod kMethods[] = {{"Read", kRead},
                                             {"Write", kWrite},
                                             {"DeleteKey", kDeleteKey},
                                             {"DeleteSection", kDeleteSection},
                                             {"DeleteAll", kNone},
                                             {"Flush", kNone},
                                             {"KeyExists", kKeyExists},
                                             {"SectionExists", kSectionExists},
                                             {"SectionList", kSectionList},
                                             {"KeyList", kKeyList},
                                             {"ReadAllJson", kReadAllJson},
                                             {"WriteJson", kWriteJson},
                                             {nullptr, nullptr}};
const DBus::IntrospectedMethod kSignals[] = {{nullptr, nullptr}};
const DBus::IntrospectedProperty kProperties[] = {{nullptr, nullptr, false, false}};

DBus::IntrospectedInterface g_interface = {"com.tavimesh.Registry", kMethods, kSignals, kProperties};

}  // namespace

DBus::IntrospectedInterface* Registry_adaptor::introspect() const { return &g_interface; }

}  // namespace tavimesh
}  // namespace com
