/* Sends requests and waits for their answers, as a server does: one connection publishes with
 * QoS 1, another one subscribes with QoS 2. Prints one JSON object:
 *   seconds       from the first request to the last answer
 *   latencies     of each request, from publishing it to its answer, in microseconds
 *   arrivals      of the answers as they came, from the first request on, in microseconds
 *   answer_bytes  size of the last answer
 * Usage: load HOST PORT TOPIC REPLY PAYLOAD COUNT WINDOW
 *   HOST PORT    the broker; with port 0, HOST is the path of a Unix socket
 *   TOPIC REPLY  requests go to TOPIC/0 to TOPIC/(WINDOW - 1), answers come on REPLY/...
 *   PAYLOAD      the file with a request's bytes
 *   COUNT        how many requests
 *   WINDOW       how many of them are in flight */
#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

static const int answer_limit_ms = 120000;

static const char* topic;
static const char* reply;
static char* payload;
static int payload_size;
static long count, window, sent, answered;
static double *sent_at, *latencies, *arrivals;
static long* request_in_slot; /* requests with the same topic follow one another */
static int answer_bytes;
static bool subscribed;
static struct mosquitto *publisher, *subscriber;

static void fail(const char* what)
{
    fprintf(stderr, "load: %s\n", what);
    exit(1);
}

static void check(int rc)
{
    if (rc != MOSQ_ERR_SUCCESS) {
        fail(mosquitto_strerror(rc));
    }
}

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + 1e-9 * (double)time.tv_nsec;
}

static void send_request(long slot)
{
    char destination[256];
    snprintf(destination, sizeof destination, "%s/%ld", topic, slot);
    request_in_slot[slot] = sent;
    sent_at[sent++] = now();
    check(mosquitto_publish(publisher, NULL, destination, payload_size, payload, 1, false));
}

static void on_subscribe(struct mosquitto* client, void* unused, int mid, int n, const int* granted)
{
    (void)client, (void)unused, (void)mid, (void)n, (void)granted;
    subscribed = true;
}

static void on_message(struct mosquitto* client, void* unused, const struct mosquitto_message* msg)
{
    (void)client, (void)unused;
    if (msg->retain) {
        return; /* of an earlier run */
    }
    const long slot = atol(msg->topic + strlen(reply) + 1);
    const long request = request_in_slot[slot];
    const double arrival = now();
    latencies[request] = 1e6 * (arrival - sent_at[request]);
    arrivals[answered++] = 1e6 * (arrival - sent_at[0]);
    answer_bytes = msg->payloadlen;
    if (sent < count) {
        send_request(slot);
    }
}

static struct mosquitto* connected(const char* host, int port)
{
    struct mosquitto* client = mosquitto_new(NULL, true, NULL);
    mosquitto_max_inflight_messages_set(client, 0); /* no limit of its own */
    mosquitto_subscribe_callback_set(client, on_subscribe);
    mosquitto_message_callback_set(client, on_message);
    check(mosquitto_connect(client, host, port, 0));
    const int on = 1;
    setsockopt(mosquitto_socket(client), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return client;
}

static void step(void)
{
    struct mosquitto* clients[] = {publisher, subscriber};
    struct pollfd ready[2];
    for (int i = 0; i < 2; i++) {
        ready[i].fd = mosquitto_socket(clients[i]);
        ready[i].events = mosquitto_want_write(clients[i]) ? POLLIN | POLLOUT : POLLIN;
    }
    if (poll(ready, 2, answer_limit_ms) <= 0) {
        fail("an answer is missing");
    }
    for (int i = 0; i < 2; i++) {
        if (ready[i].revents & (POLLIN | POLLHUP | POLLERR)) {
            check(mosquitto_loop_read(clients[i], 1));
        }
        if (mosquitto_want_write(clients[i])) {
            check(mosquitto_loop_write(clients[i], 1));
        }
    }
}

static void read_payload(const char* path)
{
    FILE* file = fopen(path, "rb");
    if (file == NULL || fseek(file, 0, SEEK_END) != 0) {
        fail("the payload cannot be read");
    }
    payload_size = (int)ftell(file);
    rewind(file);
    payload = malloc((size_t)payload_size + 1);
    if (payload == NULL || fread(payload, 1, (size_t)payload_size, file) != (size_t)payload_size) {
        fail("the payload cannot be read");
    }
    fclose(file);
}

static void print_list(const char* name, const double* values)
{
    printf(", \"%s\": [", name);
    for (long i = 0; i < count; i++) {
        printf("%s%.2f", i == 0 ? "" : ", ", values[i]);
    }
    printf("]");
}

static void print_outcome(double seconds)
{
    printf("{\"seconds\": %.6f, \"answer_bytes\": %d", seconds, answer_bytes);
    print_list("latencies", latencies);
    print_list("arrivals", arrivals);
    puts("}");
}

int main(int argc, char** argv)
{
    if (argc != 8) {
        fail("usage: load HOST PORT TOPIC REPLY PAYLOAD COUNT WINDOW");
    }
    topic = argv[3];
    reply = argv[4];
    read_payload(argv[5]);
    count = atol(argv[6]);
    window = atol(argv[7]);
    sent_at = calloc((size_t)count, sizeof *sent_at);
    latencies = calloc((size_t)count, sizeof *latencies);
    arrivals = calloc((size_t)count, sizeof *arrivals);
    request_in_slot = calloc((size_t)window, sizeof *request_in_slot);

    mosquitto_lib_init();
    publisher = connected(argv[1], atoi(argv[2]));
    subscriber = connected(argv[1], atoi(argv[2]));
    char filter[256];
    snprintf(filter, sizeof filter, "%s/+", reply);
    check(mosquitto_subscribe(subscriber, NULL, filter, 2));
    while (!subscribed) {
        step();
    }
    const double begin = now();
    for (long slot = 0; slot < window && slot < count; slot++) {
        send_request(slot);
    }
    while (answered < count) {
        step();
    }
    print_outcome(now() - begin);
    mosquitto_destroy(publisher);
    mosquitto_destroy(subscriber);
    mosquitto_lib_cleanup();
    return 0;
}
