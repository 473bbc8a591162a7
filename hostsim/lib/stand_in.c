#include "stand_in.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#define HOST_FILES "/var/lib/hostsim/"

char* knob(const char* name, size_t* ret_size) {
    char path[512];
    (void)snprintf(path, sizeof path, HOST_FILES "knobs/_usr_lib_" LIBRARY_NAME "/%s", name);
    FILE* file = fopen(path, "rbe");
    if (file == NULL) {
        return NULL;
    }
    char* bytes = NULL;
    size_t size = 0;
    FILE* memory = open_memstream(&bytes, &size); /* ends its bytes with a NUL */
    if (memory != NULL) {
        for (int c = fgetc(file); c != EOF; c = fgetc(file)) {
            (void)fputc(c, memory);
        }
        (void)fclose(memory);
    }
    (void)fclose(file);
    if (ret_size != NULL) {
        *ret_size = size;
    }
    return bytes;
}

int number_knob(const char* name, int otherwise) {
    char* text = knob(name, NULL);
    const int value = text == NULL ? otherwise : (int)strtol(text, NULL, 10);
    free(text);
    return value;
}

void record(const char* format, ...) {
    (void)mkdir(HOST_FILES "calls/_usr_lib_" LIBRARY_NAME, 0777);
    FILE* log = fopen(HOST_FILES "calls/_usr_lib_" LIBRARY_NAME "/log", "ae");
    if (log == NULL) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    (void)vfprintf(log, format, arguments);
    va_end(arguments);
    (void)fputc('\n', log);
    char* variable = knob("show_variable", NULL);
    if (variable != NULL) {
        const char* value = getenv(variable);
        if (value != NULL) {
            (void)fprintf(log, "%s=%s\n", variable, value);
        } else {
            (void)fprintf(log, "%s is not set\n", variable);
        }
        free(variable);
    }
    (void)fclose(log);
}
