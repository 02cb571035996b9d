/*
 * A connector as it was compiled against the baseline's headers: it starts the switch, adds two ports with longest
 * names, hands a configuration on, registers a trap and takes everything back, each removal once the client has
 * acknowledged it. What the library answered is to be seen in `old_connector`.
 *
 * Not to be changed with the library: it stands for plug-ins that exist. Nothing but the baseline's headers is
 * included.
 */
#include "kr_connector.h"

#include <pthread.h>
#include <string.h>

#define EXPORTED __attribute__((visibility("default")))

struct old_connector_state {
    uint32_t calls;        /* bit n: entry point n was called, in the order of the header */
    uint32_t answers[10];  /* of the library, in the order of run() */
    uint32_t answer_count; /* how far run() came */
    uint32_t log_count;
};
extern EXPORTED struct old_connector_state old_connector;
struct old_connector_state old_connector;

static conn_event_callback deliver;
static conn_config_callback configure;
static pthread_t thread;

/* For the client, which has to know when the switch has stopped. */
EXPORTED int old_connector_wait(void);
int old_connector_wait(void) {
    return pthread_join(thread, NULL);
}

static void answered(uint32_t status) {
    old_connector.answers[old_connector.answer_count++] = status;
}

static conn_port_record port_of(uint32_t number) {
    conn_port_record port;
    memset(&port, 0, sizeof port);
    port.log_port = 0x10000 + number;
    port.ifindex = number;
    memcpy(port.interface_name, "a_longest_name_1", sizeof port.interface_name);
    port.mac_address[0] = 2;
    port.mac_address[5] = (uint8_t)number;
    return port;
}

static void *run(void *context) {
    conn_port_record first = port_of(1), second = port_of(2);
    conn_control_forward forward = {CONN_FORWARD_REGISTER, 600};
    conn_agent_config config;
    memset(&config, 0, sizeof config);
    memcpy(config.entries[0].data, "controller one..", 16);
    config.entries[0].value = 0x01020304;
    config.entries[1].number = 6633;
    config.trailer = 0x1122334455667788;

    answered(deliver(CONN_EVENT_START, NULL));
    answered(deliver(CONN_EVENT_PORT_ADDED, &first));
    answered(deliver(CONN_EVENT_PORT_ADDED, &second));
    answered(configure(CONN_CONFIG_AGENT, &config));
    answered(deliver(CONN_EVENT_CONTROL_FORWARD, &forward));
    forward.command = CONN_FORWARD_DEREGISTER;
    answered(deliver(CONN_EVENT_CONTROL_FORWARD, &forward));
    answered(deliver(CONN_EVENT_PORT_REMOVED, &second));
    answered(deliver(CONN_EVENT_STOP, NULL)); /* refused: there is a port */
    answered(deliver(CONN_EVENT_PORT_REMOVED, &first));
    answered(deliver(CONN_EVENT_STOP, NULL));
    return context;
}

uint32_t conn_init(kr_log_callback log_callback) {
    old_connector.calls |= 1u << 0;
    return log_callback == NULL;
}
uint32_t conn_init_done_hal(void) {
    old_connector.calls |= 1u << 1;
    return 0;
}
uint32_t conn_init_done_shim(void) {
    old_connector.calls |= 1u << 2;
    return pthread_create(&thread, NULL, run, NULL) == 0 ? 0 : 1;
}
uint32_t conn_deinit(void) {
    old_connector.calls |= 1u << 3;
    return 0;
}
uint32_t conn_config_callback_register(conn_config_callback callback) {
    old_connector.calls |= 1u << 4;
    configure = callback;
    return 0;
}
uint32_t conn_event_callback_register(conn_event_callback callback, uint32_t event_mask) {
    old_connector.calls |= 1u << 5;
    deliver = callback;
    return event_mask == CONN_EVENT_MASK_ALL ? 0 : 1;
}
uint32_t conn_config_params_get(void) {
    old_connector.calls |= 1u << 6;
    return 0;
}
void conn_log(uint32_t severity, const char *module, const char *text) {
    if (severity == 15 && strcmp(module, "OLD") == 0 && strcmp(text, "7 words\n") == 0) {
        old_connector.log_count++;
    }
}
