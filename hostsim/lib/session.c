/* libhcore_nasauth: the host's login sessions, kept in one file with a line "type, tab, session id, tab, user" each.
 *
 * Knobs: "return" = result of every function; "user" = whose session it is, instead of looking it up. */
#include "stand_in.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define SESSIONS "/var/lib/hostsim/sessions"

HOST_API int auth_add_session(const char* session_id, const char* user, int type, const char* text);
HOST_API int auth_get_session(const char* session_id, int type, char* ret_user);

int auth_add_session(const char* session_id, const char* user, int type, const char* text) {
    record("auth_add_session sid=[%s] user=[%s] type=[%d] text=[%s]", session_id, user, type, text);
    const int result = number_knob("return", 0);
    if (result == 0) {
        FILE* sessions = fopen(SESSIONS, "ae");
        if (sessions == NULL) {
            return -1;
        }
        (void)fprintf(sessions, "%d\t%s\t%s\n", type, session_id, user);
        (void)fclose(sessions);
    }
    return result;
}

/* Looks a session up. Returns 0 and the user, or -1. */
static int find_session(const char* session_id, int type, char* ret_user) {
    FILE* sessions = fopen(SESSIONS, "re");
    if (sessions == NULL) {
        return -1;
    }
    char wanted[512];
    const int length = snprintf(wanted, sizeof wanted, "%d\t%s\t", type, session_id);
    int result = -1;
    char line[1024];
    while (result != 0 && length < (int)sizeof wanted && fgets(line, sizeof line, sessions) != NULL) {
        if (strncmp(line, wanted, (size_t)length) == 0) {
            line[strcspn(line, "\n")] = '\0';
            (void)strcpy(ret_user, line + length);
            result = 0;
        }
    }
    (void)fclose(sessions);
    return result;
}

int auth_get_session(const char* session_id, int type, char* ret_user) {
    record("auth_get_session sid=[%s] type=[%d]", session_id, type);
    char* user = knob("user", NULL);
    if (user != NULL) {
        (void)strcpy(ret_user, user);
        free(user);
        return number_knob("return", 0);
    }
    return number_knob("return", find_session(session_id, type, ret_user));
}
