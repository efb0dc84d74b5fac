#include "steer_ap.h"

sap_node_t g_self;
