/*
 * The names of a port plug-in's entry points, in the order in which the library resolves them. One of them is
 * misspelled in the contract.
 */
#ifndef KR_TESTS_FPT_SYMBOLS_H
#define KR_TESTS_FPT_SYMBOLS_H

#define FPT_SYMBOLS(X)                                                                                                 \
    X(activate)                                                                                                        \
    X(deinit)                                                                                                          \
    X(rstp_port_state_set)                                                                                             \
    X(rstp_port_state_get)                                                                                             \
    X(port_phys_addr_get)                                                                                              \
    X(port_speed_admin_set)                                                                                            \
    X(port_speed_admin_get)                                                                                            \
    X(port_speed_cabability_get)                                                                                       \
    X(port_speed_oper_get)                                                                                             \
    X(port_state_set)                                                                                                  \
    X(port_state_get)                                                                                                  \
    X(port_oper_state_get)                                                                                             \
    X(port_mtu_set)                                                                                                    \
    X(port_mtu_get)                                                                                                    \
    X(port_cntr_get)                                                                                                   \
    X(port_cntr_clear)

#endif
