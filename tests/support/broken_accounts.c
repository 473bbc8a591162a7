/* Put in the place of the host's library of accounts: one function that faults, and one that uses up its stack. */
#include <stdint.h>

int Get_Local_User_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count);
int Get_Local_Group_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count);

int Get_Local_User_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count) {
    (void)ret_list;
    (void)zero1;
    (void)zero2;
    (void)ret_count;
    *(volatile int*)null = 0;
    return 0;
}

int Get_Local_Group_List_V2(char** ret_list, int zero1, int zero2, void* null, int32_t* ret_count) {
    volatile char frame[1024];
    frame[0] = (char)zero2;
    const int inner = zero1 == 0 ? Get_Local_Group_List_V2(ret_list, zero1, zero2, null, ret_count) : 0;
    return inner + frame[0]; // so that the frame is needed beyond the call
}
