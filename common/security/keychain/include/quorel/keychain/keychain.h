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
/* kc_add_item_checked only: the bus exchange failed or the reply carried no result. */
#define KC_ERR_BUS (-65520)

int32_t kc_init(void);
void kc_deinit(void);

// A failed bus exchange (no keychain service, time-out, disconnection, an error reply) is logged
// and returns 0 with the out-parameters untouched, and so does a reply without the expected
// integers: callers that need to know must check what they read back, or use
// kc_add_item_checked. Programs rely on this, so it stays.
int32_t kc_add_item(const char* name, const uint8_t* data, uint32_t len, uint32_t item_type);
// kc_add_item for callers that must know whether the item was written: the same checks, logs and
// results, except that a failed bus exchange, or a reply without its result integer, returns
// KC_ERR_BUS instead of 0. So 0 means that the service answered and took the item.
int32_t kc_add_item_checked(const char* name, const uint8_t* data, uint32_t len, uint32_t item_type);

// len: capacity of buf on entry, item length on return (also on KC_ERR_SHORT_BUFFER).
// buf may be null only when len is 0: the size probe.
// Never more than the capacity is copied, and a result of 0 always has *len <= capacity: an answer
// of 0 whose length exceeds the capacity is returned as KC_ERR_SHORT_BUFFER with that length in
// *len (logged as a short buffer). A negative length in an answer of 0 or KC_ERR_SHORT_BUFFER is
// returned as KC_ERR_SHORT_BUFFER with *len 0: no size is known, and no item has length 0, so a
// two-call reader stops there instead of allocating what the service made up.
int32_t kc_get_item(const char* name, uint8_t* buf, uint32_t* len, int32_t* item_type);
// out_len: capacity of out on entry, the length the service answered on return (whatever the
// result; 0 for a negative one). The rules of kc_get_item hold: never more than the capacity is
// copied, a result of 0 always has *out_len <= capacity, and an answer of 0 or KC_ERR_SHORT_BUFFER
// with a negative length is returned as KC_ERR_SHORT_BUFFER with *out_len 0.
int32_t kc_encrypt_data(const uint8_t* data, uint32_t data_len, const char* name, uint8_t* out, uint32_t* out_len);
int32_t kc_decrypt_data(const char* name, const uint8_t* data, uint32_t data_len, uint8_t* out, uint32_t* out_len);

#ifdef __cplusplus
}
#endif

#endif
