// kpcore clientinfo: asks the client-info service what it sees of this machine.
#include <iostream>
#include <mutex>

#include "command.h"
#include "kp/service/client_info_web_service.h"
#include "service_session.h"

namespace {

using namespace std::chrono_literals;

struct Answer {
  std::mutex mutex;
  bool arrived = false;  // GUARDED_BY(mutex)
  std::optional<kp::ClientBasicInfo> info;
  kp::ErrorPtr error;
};

int runClientInfo(kpcore::Args& args) {
  const auto base = args.option("base");
  const bool insecure = args.flag("insecure");
  const bool json = args.flag("json");
  args.expectEnd();
  kp::ClientInfoWebService clientInfo;
  if (base) {
    const auto url = kp::Url::parse(*base);
    if (!url || !url->isAbsolute() || url->host().empty())
      throw kpcore::CommandError("not an absolute URL: " + *base, 2);
    clientInfo.baseUrl = *base;
  }

  kpcore::ServiceSession session(insecure);
  clientInfo.urlSession = session.session();
  auto answer = std::make_shared<Answer>();
  const auto ticket = clientInfo.getBasicInfo([answer](std::optional<kp::ClientBasicInfo> info, kp::ErrorPtr error) {
    std::lock_guard lock(answer->mutex);
    answer->arrived = true;
    answer->info = std::move(info);
    answer->error = std::move(error);
  });
  if (!ticket) throw kpcore::CommandError("no request can be formed for " + clientInfo.baseUrl);
  // The completion runs on the main queue; the call's own timeout bounds the wait.
  const bool arrived = kpcore::drainMainQueueUntil(
      [&answer] {
        std::lock_guard lock(answer->mutex);
        return answer->arrived;
      },
      std::chrono::duration_cast<kp::Duration>(std::chrono::duration<double>(clientInfo.timeoutInterval) + 5s));

  std::lock_guard lock(answer->mutex);
  if (!arrived) throw kpcore::CommandError("no answer from " + clientInfo.baseUrl);
  if (answer->error) throw kpcore::CommandError(answer->error->localizedDescription());
  if (!answer->info) throw kpcore::CommandError("the answer carried no client info");
  const auto& info = *answer->info;
  if (json) {
    auto field = [](const std::optional<std::string>& value) { return value ? kpcore::jsonQuote(*value) : "null"; };
    std::cout << "{\"ip\":" << field(info.ip) << ",\"userAgent\":" << field(info.userAgent) << "}\n";
  } else {
    std::cout << "ip: " << kpcore::printable(info.ip.value_or(""))
              << "\nuserAgent: " << kpcore::printable(info.userAgent.value_or("")) << "\n";
  }
  return 0;
}

const kpcore::Registration registration{"clientinfo",
                                        "Ask the client-info service for this machine's address and user agent",
                                        "kpcore clientinfo [--base URL] [--insecure] [--json]\n"
                                        "  Without --base it asks the build's default endpoint.",
                                        runClientInfo};

}  // namespace
