/*
 * A port monitor: prints a line for every port that comes, goes, or changes its link, until Ctrl-C.
 *
 * Shows the life of a client in plain C11: init, channel, registration, activation, the loop over events, the
 * acknowledgement of removals, and the way down. Usage: port_monitor CONNECTOR PORT-PLUGIN
 */
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "connector_control.h"
#include "kr_sdn_hal.h"

static void print_log(uint32_t severity, const char *module, const char *text) {
    if (severity <= 3) { /* errors and warnings */
        fprintf(stderr, "%s: %s", module, text);
    }
}

static int check(kr_sdn_hal_status status, const char *what) {
    if (status != KR_SDN_HAL_STATUS_SUCCESS) {
        fprintf(stderr, "port_monitor: %s failed with status %u\n", what, (unsigned)status);
        return 0;
    }
    return 1;
}

static void print_port(uint32_t port, const char *name, const uint8_t *mac, const char *what, uint32_t oper_state) {
    printf("port %-6u %-16s %02x:%02x:%02x:%02x:%02x:%02x %-8s link %s\n", port, name, mac[0], mac[1], mac[2], mac[3],
           mac[4], mac[5], what, oper_state == 1 ? "up" : "down");
}

static void handle(srvc_handle *channel, const hal_event_record *record) {
    switch (record->type) {
    case EVENT_GENERAL_READY:
        printf("switch ready\n");
        /* Link changes come from the switch itself, which is open only now. */
        (void)check(kr_sdn_hal_srvc_event_register(channel, EVENT_PORT_OPER_STATE_CHANGE), "register for links");
        break;
    case EVENT_PORT_CAPABILITIES_UPDATE: {
        const hal_event_port_update *update = &record->payload.port_update;
        char name[sizeof update->interface_name + 1] = "";
        memcpy(name, update->interface_name, sizeof update->interface_name);
        print_port(update->port, name, update->mac_address, update->reason == PORT_UPDATE_ADDED ? "added" : "removed",
                   update->oper_state);
        if (update->reason == PORT_UPDATE_REMOVED) {
            (void)check(kr_sdn_hal_srvc_event_ack(record), "acknowledge the removal");
        }
        break;
    }
    case EVENT_PORT_OPER_STATE_CHANGE:
        printf("port %-6u link %s\n", record->payload.port_oper.port,
               record->payload.port_oper.oper_state == 1 ? "up" : "down");
        break;
    default:
        break;
    }
    fflush(stdout);
}

/* The request returns when the ports are gone, and their removals are acknowledged by the main thread. */
static void *stop_switch(void *done) {
    char answer[256];
    if (!connector_request("stop", answer, sizeof answer)) {
        fprintf(stderr, "port_monitor: %s\n", answer);
    }
    atomic_store((atomic_int *)done, 1);
    return NULL;
}

static void run(srvc_handle *channel) {
    pthread_t stopper;
    int stopping = 0;
    atomic_int done = 0;
    hal_event_record record;

    while (!atomic_load(&done)) {
        struct timeval timeout = {0, 100000};
        uint32_t ready = 0;
        sigset_t pending;

        sigpending(&pending);
        if (!stopping && (sigismember(&pending, SIGINT) || sigismember(&pending, SIGTERM))) {
            stopping = pthread_create(&stopper, NULL, stop_switch, &done) == 0;
        }
        if (kr_sdn_hal_srvc_select(&channel, 1, &timeout, &ready) == KR_SDN_HAL_STATUS_SUCCESS && ready != 0 &&
            kr_sdn_hal_srvc_recv(channel, &record) == KR_SDN_HAL_STATUS_SUCCESS) {
            handle(channel, &record);
        }
    }
    pthread_join(stopper, NULL);
}

int main(int argument_count, char **arguments) {
    system_profile profile;
    srvc_handle channel;
    sigset_t signals;
    int ok;

    if (argument_count != 3) {
        fprintf(stderr, "usage: %s CONNECTOR PORT-PLUGIN\n", arguments[0]);
        return 2;
    }
    /* Blocked in every thread, so that no wait of the library is interrupted; the loop looks for them. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    memset(&profile, 0, sizeof profile);
    snprintf(profile.connector_library_path, sizeof profile.connector_library_path, "%s", arguments[1]);
    snprintf(profile.fpt_library_path, sizeof profile.fpt_library_path, "%s", arguments[2]);
    if (!check(kr_sdn_hal_init(&profile, print_log), "kr_sdn_hal_init")) {
        return 1;
    }
    ok = check(kr_sdn_hal_srvc_open(&channel), "kr_sdn_hal_srvc_open") &&
         check(kr_sdn_hal_srvc_event_register(&channel, EVENT_GENERAL_READY), "register for ready") &&
         check(kr_sdn_hal_srvc_event_register(&channel, EVENT_PORT_CAPABILITIES_UPDATE), "register for ports") &&
         check(kr_sdn_hal_activate(), "kr_sdn_hal_activate");
    if (ok) {
        run(&channel);
        ok = check(kr_sdn_hal_srvc_close(&channel), "kr_sdn_hal_srvc_close");
    }
    return check(kr_sdn_hal_deinit(), "kr_sdn_hal_deinit") && ok ? 0 : 1;
}
