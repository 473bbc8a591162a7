/* Put in the place of a host library whose own dependencies are not what they were: one of its functions calls another
 * that nothing provides. The one that is asked for does not need it. */
int missing_from_the_host(void);
int needs_what_is_missing(void);
int Get_SMS_config(void* ret_settings);

int needs_what_is_missing(void) {
    return missing_from_the_host();
}

int Get_SMS_config(void* ret_settings) {
    (void)ret_settings;
    return 0;
}
