// The companion product's request for the gateway data.
#ifndef ZU_SERVER_GATEWAY_SHARE_H_
#define ZU_SERVER_GATEWAY_SHARE_H_

#include "build_values.h"

namespace zu::server {

inline constexpr char kGatewayRequest[] =
    ZU_PARENT_EPP_PREFIX ".gatewayshare.venueid.request";
inline constexpr char kGatewayResponse[] =
    ZU_PARENT_EPP_PREFIX ".gatewayshare.venueid.response";

// Handles one notification kGatewayRequest: has the host's "SERI" callback
// write the data, stores them for every local user and posts kGatewayResponse.
// Runs on the thread that delivers notifications, and the callback with it,
// perhaps while another callback runs on the server's worker.
void GatewaySerialNumberRequest();

}  // namespace zu::server

#endif  // ZU_SERVER_GATEWAY_SHARE_H_
