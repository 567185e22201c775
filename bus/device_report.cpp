#include "bus/device_report.hpp"

#include "app/utilities/TableFormatter.hpp"
#include "app/utilities/utf8_text.hpp"
#include "bus/identity_text.hpp"

#include <iostream>
#include <map>
#include <vector>

namespace tessaron::bus {
namespace {

using proto::bus::TopicDescription;

constexpr char K_NO_PUBLISHER[] = "  ⚠ no known publisher";

constexpr char K_GREEN[] = "\033[32m";
constexpr char K_BLUE[] = "\033[34m";
constexpr char K_RED[] = "\033[31m";
constexpr char K_BOLD_YELLOW[] = "\033[1;33m";
constexpr char K_BOLD_CYAN[] = "\033[1;36m";

std::map<std::uint32_t, DiscoveredDevice const*> by_address(DeviceMap const& devices) {
    std::map<std::uint32_t, DiscoveredDevice const*> sorted;
    for (auto const& [address, device] : devices) {
        sorted.emplace(address, &device);
    }
    return sorted;
}

template <std::size_t SIZE>
std::string text_of(char const (&field)[SIZE]) {
    return identity_field_to_string(field, SIZE);
}

std::string count_of(DeviceMap const& devices) {
    return "Hub report: " + std::to_string(devices.size()) +
           (devices.size() == 1 ? " device known\n" : " devices known\n");
}

std::string join(std::vector<std::string> const& texts) {
    std::string joined;
    for (std::string const& text : texts) {
        joined += (joined.empty() ? "" : ", ") + text;
    }
    return joined;
}

std::string topic_list(char const* title, std::vector<TopicDescription> const& topics,
                       HasPublisher const& has_publisher) {
    std::string text = std::string("    ") + title + ":" + (topics.empty() ? " (none)\n" : "\n");
    for (TopicDescription const& topic : topics) {
        text += "      " + topic.name;
        text += topic.description.empty() ? "" : " - " + topic.description;
        text += has_publisher(topic.name) ? "\n" : std::string(K_NO_PUBLISHER) + "\n";
    }
    return text;
}

std::string describe(DiscoveredDevice const& device, HasPublisher const& has_publisher) {
    std::string const binary = text_of(device.identity.binary);
    std::string const group = text_of(device.identity.group);
    std::string text =
        "- [" + std::to_string(device.address) + "] " + text_of(device.identity.name);
    text += binary.empty() ? "" : " (binary=" + binary + ")";
    text += group.empty() ? "\n" : " [group=" + group + "]\n";
    text += device.roles.empty() ? "" : "    roles: " + join(device.roles) + "\n";
    text +=
        topic_list("publications", device.publications, [](std::string const&) { return true; });
    text += topic_list("subscriptions", device.subscriptions, has_publisher);
    return text;
}

TableFormatter topic_table(DiscoveredDevice const& device, HasPublisher const& has_publisher) {
    TableFormatter table({{"KIND"}, {"TOPIC"}, {"DESCRIPTION"}});
    for (TopicDescription const& topic : device.publications) {
        table.add_row({{"pub", K_GREEN}, {topic.name, ""}, {topic.description, ""}});
    }
    for (TopicDescription const& topic : device.subscriptions) {
        if (has_publisher(topic.name)) {
            table.add_row({{"sub", K_BLUE}, {topic.name, ""}, {topic.description, ""}});
        } else {
            table.add_row(
                {{"sub", K_BLUE}, {topic.name + K_NO_PUBLISHER, K_RED}, {topic.description, ""}});
        }
    }
    return table;
}

} // namespace

std::string device_report(DeviceMap const& devices, HasPublisher const& has_publisher) {
    std::string text = count_of(devices);
    for (auto const& [address, device] : by_address(devices)) {
        text += describe(*device, has_publisher);
    }
    return text;
}

void print_device_tables(std::ostream& out, DeviceMap const& devices,
                         HasPublisher const& has_publisher) {
    bool const use_color = &out == &std::cout && tessaron::detail::stdout_supports_color();
    auto const sorted = by_address(devices);
    TableFormatter table({{"ADDRESS"}, {"NAME"}, {"BINARY"}, {"GROUP"}, {"ROLES"}});
    for (auto const& [address, device] : sorted) {
        table.add_row({{std::to_string(address), K_BOLD_YELLOW},
                       {text_of(device->identity.name), K_BOLD_CYAN},
                       {text_of(device->identity.binary), ""},
                       {text_of(device->identity.group), ""},
                       {join(device->roles), ""}});
    }
    out << count_of(devices) << '\n';
    table.print(out, use_color);
    for (auto const& [address, device] : sorted) {
        out << "\n[" << address << "] " << text_of(device->identity.name) << ":\n";
        topic_table(*device, has_publisher).print(out, use_color);
    }
}

} // namespace tessaron::bus
