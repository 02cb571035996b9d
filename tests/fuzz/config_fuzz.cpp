/*
 * The reference connector's configuration file with bytes of any kind. Reading is all or nothing, mistakes lie in lines
 * that the file has, and what is read keeps to the limits of the library.
 */
#include <algorithm>

#include "connector_config.h"
#include "tests/fuzz/fuzz_input.h"

using namespace kr_connector;
using kr_fuzz::require;

namespace {

void look_at(const config_result &result, const std::string &text) {
    require(result.ok == result.mistakes.empty(), "a file is read, or has mistakes");
    const auto line_count = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    unsigned line_before = 0;
    for (const config_mistake &mistake : result.mistakes) {
        require(!mistake.text.empty() && mistake.line <= line_count, "a mistake has a text and lies in the file");
        require(mistake.line == 0 || mistake.line >= line_before, "mistakes come in the order of lines");
        line_before = std::max(line_before, mistake.line);
        require(config_mistake_text("file", mistake).starts_with("file:"), "a mistake names its file");
    }
}

void look_at(const connector_config &config) {
    require(config.ports.size() <= max_configured_ports, "no more ports than the library holds");
    for (const auto &[name, requested] : config.ports) {
        require(config.captures.contains(name) || interface_name_valid(name), "a port without files is an interface");
        int32_t again = -1;
        require(requested_port_parse(requested == 0 ? "none" : std::to_string(requested), &again) && again == requested,
                "a requested port can be written in a file");
    }
    for (const auto &[name, files] : config.captures) {
        require(config.ports.contains(name), "capture files belong to a port");
    }
}

} // namespace

KR_FUZZ_TARGET(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const config_result result = config_parse(text, "/folder");
    look_at(result, text);
    if (result.ok) {
        look_at(result.config);
    }
    require(config_parse(text, "/folder").config == result.config, "reading twice gives the same");
    (void)interface_name_valid(text);
    int32_t requested = 0;
    if (requested_port_parse(text, &requested)) {
        require(requested >= -32768 && requested <= 32511, "a requested port that the library takes");
    }
    return 0;
}
