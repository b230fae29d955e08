// SPDX-License-Identifier: MIT
#if NEVER_DEFINED // one of the flags of vka would warn
#endif
int bystander();

int bystander() {
    return 0;
}
