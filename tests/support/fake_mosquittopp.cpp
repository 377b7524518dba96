#include "support/fake_mosquittopp.h"

#include <algorithm>

FakeMosquitto fake_mosquitto;

namespace {

void record(const std::string& call)
{
    fake_mosquitto.calls.push_back(call);
}

void store_next_mid(int* mid)
{
    if (mid != nullptr) {
        *mid = fake_mosquitto.next_mid;
    }
    ++fake_mosquitto.next_mid;
}

}  // namespace

int FakeMosquitto::count(const std::string& call) const
{
    return static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](const std::string& made) {
        return made.compare(0, call.size(), call) == 0;
    }));
}

namespace mosqpp {

int lib_init()
{
    record("lib_init");
    return fake_mosquitto.lib_init();
}

int lib_cleanup()
{
    record("lib_cleanup");
    return fake_mosquitto.lib_cleanup();
}

// The library's handle is opaque to this class' users; the fake keeps the identifier there.
mosquittopp::mosquittopp(const char* id, bool clean_session)
    : m_mosq(reinterpret_cast<struct mosquitto*>(const_cast<char*>(id)))
{
    record(std::string("mosquittopp ") + id + (clean_session ? " clean" : " kept"));
    fake_mosquitto.client = this;
}

mosquittopp::~mosquittopp()
{
    record("~mosquittopp");
    fake_mosquitto.client_ids.emplace_back(reinterpret_cast<const char*>(m_mosq));
}

int mosquittopp::socket()
{
    return fake_mosquitto.socket;
}

bool mosquittopp::want_write()
{
    return fake_mosquitto.wants_write;
}

int mosquittopp::max_inflight_messages_set(unsigned int max_inflight_messages)
{
    fake_mosquitto.max_inflight = max_inflight_messages;
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::connect(const char* host, int port, int keepalive)
{
    record(std::string("connect ") + host + " " + std::to_string(port) + " keepalive " +
           std::to_string(keepalive));
    return fake_mosquitto.connect();
}

int mosquittopp::reinitialise(const char* id, bool clean_session)
{
    record(std::string("reinitialise ") + id + (clean_session ? " clean" : " kept"));
    fake_mosquitto.max_inflight = 20;  // as the library does
    return fake_mosquitto.reinitialise();
}

int mosquittopp::disconnect()
{
    record("disconnect");
    return fake_mosquitto.disconnect();
}

int mosquittopp::subscribe(int* mid, const char* sub, int qos)
{
    record(std::string("subscribe ") + sub + " qos " + std::to_string(qos));
    store_next_mid(mid);
    return fake_mosquitto.subscribe();
}

int mosquittopp::publish(int* mid, const char* topic, int payloadlen, const void* payload, int qos,
                         bool retain)
{
    record(std::string("publish ") + topic);
    const char* const bytes = static_cast<const char*>(payload);
    fake_mosquitto.publications.push_back(
        {topic, std::string(bytes, static_cast<std::size_t>(payloadlen)), qos, retain});
    store_next_mid(mid);
    return fake_mosquitto.publish();
}

int mosquittopp::loop(int timeout, int max_packets)
{
    record("loop " + std::to_string(timeout) + " " + std::to_string(max_packets));
    return fake_mosquitto.loop();
}

int mosquittopp::loop_read(int max_packets)
{
    record("loop_read " + std::to_string(max_packets));
    return fake_mosquitto.loop_read();
}

int mosquittopp::loop_write(int max_packets)
{
    record("loop_write " + std::to_string(max_packets));
    return fake_mosquitto.loop_write();
}

int mosquittopp::loop_misc()
{
    record("loop_misc");
    return fake_mosquitto.loop_misc();
}

}  // namespace mosqpp
