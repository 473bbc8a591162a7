/* libhcore_config: the host's SMS settings.
 *
 * Knobs: "record" = the bytes of the settings; "return" = the function's result. */
#include "stand_in.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

struct sms_settings {
    int32_t mode;
    int32_t max_provider;
    int32_t now_provider;
    int32_t using_provider;
    char country[16];
    char country_code[16];
    char phone1[32];
    char phone2[32];
};

HOST_API int Get_SMS_config(struct sms_settings* ret_settings);

int Get_SMS_config(struct sms_settings* ret_settings) {
    record("Get_SMS_config");
    size_t size = 0;
    char* bytes = knob("record", &size);
    if (bytes != NULL) {
        memcpy(ret_settings, bytes, size);
        free(bytes);
    } else {
        const struct sms_settings plain = {
            .mode = 1,
            .max_provider = 4,
            .now_provider = 2,
            .using_provider = 1,
            .country = "Iceland",
            .country_code = "354",
            .phone1 = "5550100",
            .phone2 = "5550101",
        };
        *ret_settings = plain;
    }
    return number_knob("return", 0);
}
