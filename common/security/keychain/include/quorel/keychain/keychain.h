// Client of the gateway's keychain service "iot.gateway.security.keychain".
//
// Bulk data travels through one System V shared-memory segment per call, created and marked for
// removal by the call itself; the bus carries only segment ids and lengths. Callable from any
// thread once kc_init has succeeded; calls take turns on the client's own private connection.
//
// The bus address is "unix:path=/tmp/var/run/mbusd/mbusd_socket", or the value of the environment
// variable CONFIG_MANAGER_BUS_ADDRESS when that is set (development machines and tests).
#ifndef QUOREL_KEYCHAIN_KEYCHAIN_H
#define QUOREL_KEYCHAIN_KEYCHAIN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KC_SUCCESS 0
#define KC_ERR_NOT_INITIALIZED (-65535) /* also: init failed, no executable path, no method call */
#define KC_ERR_BAD_PARAMS (-65532)
#define KC_ERR_SHM (-65531)
#define KC_ERR_SHORT_BUFFER (-65526) /* the returned length is the size needed */

int32_t kc_init(void);
void kc_deinit(void);

// A failed bus exchange (no keychain service, time-out) is logged and returns 0 with the
// out-parameters untouched: callers that need to know must check what they read back.
int32_t kc_add_item(const char* name, const uint8_t* data, uint32_t len, uint32_t item_type);
// len: capacity of buf on entry, item length on return (also on KC_ERR_SHORT_BUFFER).
// buf may be null only when len is 0: the size probe.
int32_t kc_get_item(const char* name, uint8_t* buf, uint32_t* len, int32_t* item_type);
int32_t kc_encrypt_data(const uint8_t* data, uint32_t data_len, const char* name, uint8_t* out, uint32_t* out_len);
int32_t kc_decrypt_data(const char* name, const uint8_t* data, uint32_t data_len, uint8_t* out, uint32_t* out_len);

#ifdef __cplusplus
}
#endif

#endif
