/* libhcore_NAS: the host's local users and groups. Every list is one block from the heap, the caller's to free.
 *
 * Knobs: "users", "groups", "members" = the names, one a line; a member "(null)" is an entry without a pointer.
 * "return" = result of every function, the list being made all the same. "count" = how many names the users' and the
 * groups' lists are said to have. "no_block" = no list is made.
 * "member_list" = "static": the members' list is a variable of this library; "filled": it is written into the caller's;
 * "untouched": nothing is written at all.
 */
#include "stand_in.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { USER_NAME_BYTES = 33, GROUP_NAME_BYTES = 257 };

HOST_API int Get_Local_User_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count);
HOST_API int Get_Local_Group_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count);
HOST_API int Get_NAS_User_List_Of_Group_Ex(const char* group, char*** ret_list);

/* Whether the test wants no block to be returned. */
static int without_block(void) {
    char* text = knob("no_block", NULL);
    free(text);
    return text != NULL;
}

/* The names of the knob, or `otherwise`, one a line; to be freed by the caller. */
static char* names_of(const char* knob_name, const char* otherwise) {
    char* names = knob(knob_name, NULL);
    return names != NULL ? names : strdup(otherwise);
}

static size_t count_lines(const char* text) {
    size_t count = 0;
    for (; *text != '\0'; ++text) {
        count += *text == '\n';
    }
    return count;
}

/* Makes a list of fixed-size entries. A name that fills its entry has no NUL. */
static int list_names(char* names, size_t entry_bytes, char** ret_list, int32_t* ret_count) {
    if (names == NULL) {
        return -1;
    }
    const size_t count = count_lines(names);
    char* list = without_block() ? NULL : calloc(count + 1, entry_bytes);
    const char* name = names;
    for (size_t i = 0; list != NULL && i < count; ++i) {
        const size_t length = strcspn(name, "\n");
        memcpy(list + i * entry_bytes, name, length < entry_bytes ? length : entry_bytes);
        name += length + 1;
    }
    free(names);
    *ret_list = list;
    *ret_count = number_knob("count", (int)count);
    return number_knob("return", 0);
}

int Get_Local_User_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count) {
    record("Get_Local_User_List_V2 [%d] [%d] [%s]", zero1, zero2, null == NULL ? "null" : "set");
    return list_names(names_of("users", "admin\nguest\nvexuser\n"), USER_NAME_BYTES, ret_list, ret_count);
}

int Get_Local_Group_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count) {
    record("Get_Local_Group_List_V2 [%d] [%d] [%s]", zero1, zero2, null == NULL ? "null" : "set");
    return list_names(names_of("groups", "administrators\neveryone\n"), GROUP_NAME_BYTES, ret_list, ret_count);
}

/* Makes an array of pointers to names, the names in the same block behind it. */
static char** list_pointers(const char* names, size_t count) {
    char** list = malloc((count + 1) * sizeof *list + strlen(names) + 1);
    if (list == NULL) {
        return NULL;
    }
    char* text = strcpy((char*)(list + count + 1), names);
    for (size_t i = 0; i < count; ++i) {
        const size_t length = strcspn(text, "\n");
        text[length] = '\0';
        list[i] = strcmp(text, "(null)") == 0 ? NULL : text;
        text += length + 1;
    }
    list[count] = NULL;
    return list;
}

/* Hands the list, which it takes over, out the way the knob wants it. */
static void give_list(char** list, size_t count, char*** ret_list) {
    static char* own_list[64];
    char* way = knob("member_list", NULL);
    if (list == NULL || way == NULL) {
        *ret_list = list;
    } else {
        char** const target = strcmp(way, "static") == 0 ? own_list : (char**)ret_list;
        const int writes = strcmp(way, "untouched") != 0;
        for (size_t i = 0; writes && i < count && i < sizeof own_list / sizeof *own_list; ++i) {
            target[i] = list[i] == NULL ? NULL : (char*)"a member";
        }
        if (target == own_list) {
            *ret_list = own_list;
        }
        free(list);
    }
    free(way);
}

int Get_NAS_User_List_Of_Group_Ex(const char* group, char*** ret_list) {
    record("Get_NAS_User_List_Of_Group_Ex [%s]", group);
    char* names = names_of("members", strcmp(group, "administrators") == 0 ? "admin\n" : "admin\nguest\nvexuser\n");
    if (names == NULL) {
        return -1;
    }
    const size_t count = count_lines(names);
    give_list(without_block() ? NULL : list_pointers(names, count), count, ret_list);
    free(names);
    return number_knob("return", (int)count);
}
