#include "mqtt/mqtt.h"

#include "gnss/gnss.h"
#include "mqtt/mqtt_device.h"
#include "upstream/positioning.h"

namespace {

std::unique_ptr<MqttDevice> device;

} // namespace

std::string mqtt_enter(char** /*unused*/) {
    return "";
}

std::string mqtt_open(event_base* base, const MqttSettings& settings) {
    mosquitto_lib_init();
    MqttTls tls;
    std::string problem = settings.ca.empty() ? "" : mqtt_tls_open(tls, settings);
    if (!problem.empty()) {
        return problem;
    }
    device = std::make_unique<MqttDevice>();
    mqtt_device_open(*device, base, settings);
    gnss_take([](const GnssEpoch& epoch) { mqtt_device_take(*device, epoch); });
    positioning_want(1);
    return "";
}

void mqtt_close() {
    if (device) {
        mqtt_device_close(*device);
        device = nullptr;
    }
}
