/* The limit that the service is measured against: answers each message on TOPIC/ID with the same
 * bytes on REPLY/ID, with the service's qualities of service, and nothing more: no Lua, no
 * MessagePack, no log. It runs the library's own loop, since a user would write it so, even where
 * the service calls the library's steps itself.
 * Usage: echo_client HOST PORT TOPIC REPLY     PORT 0: HOST is the path of a Unix socket. */
#define _GNU_SOURCE
#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

static volatile sig_atomic_t running = 1;
static const char* topic;
static const char* reply;

static void stop(int number)
{
    (void)number;
    running = 0;
}

static void on_connect(struct mosquitto* client, void* unused, int rc)
{
    (void)unused;
    char filter[256];
    snprintf(filter, sizeof filter, "%s/+", topic);
    if (rc == 0) {
        mosquitto_subscribe(client, NULL, filter, 1);
    }
}

static void on_publish(struct mosquitto* client, void* unused, int mid)
{
    (void)unused;
    (void)mid;
    const int on = 1;
    setsockopt(mosquitto_socket(client), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

static void on_message(struct mosquitto* client, void* unused, const struct mosquitto_message* msg)
{
    (void)unused;
    char destination[256];
    snprintf(destination, sizeof destination, "%s%s", reply, msg->topic + strlen(topic));
    mosquitto_publish(client, NULL, destination, msg->payloadlen, msg->payload, 2, true);
}

int main(int argc, char** argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: echo_client HOST PORT TOPIC REPLY\n");
        return 2;
    }
    topic = argv[3];
    reply = argv[4];
    struct sigaction action = {.sa_handler = stop};
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);

    mosquitto_lib_init();
    struct mosquitto* client = mosquitto_new("echo_client", true, NULL);
    mosquitto_connect_callback_set(client, on_connect);
    mosquitto_publish_callback_set(client, on_publish);
    mosquitto_message_callback_set(client, on_message);
    int rc = mosquitto_connect(client, argv[1], atoi(argv[2]), 0);
    const int on = 1;
    setsockopt(mosquitto_socket(client), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    while (running && rc == MOSQ_ERR_SUCCESS) {
        struct pollfd ready = {.fd = mosquitto_socket(client), .events = POLLIN};
        if (mosquitto_want_write(client)) {
            ready.events |= POLLOUT;
        }
        if (poll(&ready, 1, 1000) > 0) {
            rc = mosquitto_loop(client, 1000, 1);
        }
    }
    mosquitto_destroy(client);
    mosquitto_lib_cleanup();
    if (rc != MOSQ_ERR_SUCCESS) {
        fprintf(stderr, "echo_client: %s\n", mosquitto_strerror(rc));
    }
    return rc;
}
