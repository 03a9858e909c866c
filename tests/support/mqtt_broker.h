// An MQTT broker that a test plays on loopback, one connection at a time. It understands what the relay
// sends, and no more.
#ifndef TAVOR_TESTS_MQTT_BROKER_H
#define TAVOR_TESTS_MQTT_BROKER_H

#include <string>
#include <vector>

struct MqttBrokerMessage {
    std::string topic;
    std::string payload;
    int qos;
    bool retain;
    int number;
};

struct MqttBroker {
    MqttBroker();
    ~MqttBroker();
    MqttBroker(const MqttBroker&) = delete;
    MqttBroker& operator=(const MqttBroker&) = delete;

    // Takes what has come, and answers.
    void turn();
    // To the client that is connected; false when there is none or it takes no more.
    bool send(const std::string& bytes) const;
    // Ends the connection.
    void hang_up();
    // Payloads on topics with this ending.
    std::vector<std::string> payloads(const std::string& ending) const;
    size_t count(unsigned char first_byte) const;

    int port = 0;
    int consent = 0; // to the next client; -1: nothing is said
    bool acknowledges = true;
    int connections = 0;
    bool connected = false;                  // a client, by TCP
    std::vector<unsigned char> first_bytes;  // of all packets
    std::string greeting;                    // the latest CONNECT after its header
    std::vector<MqttBrokerMessage> messages; // that were published

private:
    void take(unsigned char first, const std::string& body);

    int listener = -1;
    int fd = -1;
    std::string input;
};

#endif
