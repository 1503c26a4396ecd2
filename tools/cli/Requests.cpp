#include "tools/cli/Requests.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/cli/Values.h"
#include "wire/Funcid.h"
#include "wire/protos/amc.pb.h"

namespace cli {
namespace {

// ---- Options, one function each -------------------------------------------------------------------------

template <class Number>
CLI::Option* number(CLI::App& app, const char* name, Number& value, const char* about) {
  return app.add_option(name, value, about)->check(decimal<Number>())->type_name("NUMBER");
}

void scene(CLI::App& app, Arguments& a) {
  number(app, "--scene", a.scene, "Scene code, the service's business")->capture_default_str();
}
void action(CLI::App& app, Arguments& a) {
  number(app, "--action", a.action, "Action code (64 bits), the service's business")->capture_default_str();
}
void level(CLI::App& app, Arguments& a) {
  number(app, "--level", a.level, "Level; the reference service takes 1 to 3")->required();
}
void timeoutms(CLI::App& app, Arguments& a) {
  number(app, "--timeoutms", a.timeoutms, "How long the boost lasts, in milliseconds")->required();
}
void timeout(CLI::App& app, Arguments& a) {
  number(app, "--timeout", a.timeout, "How long the boost lasts; milliseconds for the reference service")
      ->required();
}
void cpulevel(CLI::App& app, Arguments& a) {
  number(app, "--cpulevel", a.cpulevel, "Level of the CPU part, 0 for none")->capture_default_str();
}
void iolevel(CLI::App& app, Arguments& a) {
  number(app, "--iolevel", a.iolevel, "Level of the I/O part, 0 for none")->capture_default_str();
}
void bindtids(CLI::App& app, Arguments& a) {
  app.add_option_function<std::vector<std::string>>(
         "--bindtids",
         [&a](const std::vector<std::string>& lists) {
           for (const std::string& list : lists) {
             const std::string problem = parseTids(list, a.bindtids);
             if (!problem.empty()) throw CLI::ValidationError("--bindtids", problem);
           }
         },
         "Thread ids, as in 101,102,self (self: this program); repeat it for more, leave it out for none")
      ->type_name("TID,...")
      ->allow_extra_args(false);
}
void cancelcpu(CLI::App& app, Arguments& a) {
  app.add_flag("--cancelcpu", a.cancelcpu, "Take the CPU part back");
}
void cancelio(CLI::App& app, Arguments& a) {
  app.add_flag("--cancelio", a.cancelio, "Take the I/O part back");
}
void cancelthread(CLI::App& app, Arguments& a) {
  app.add_flag("--cancelthread", a.cancelthread, "Take the thread binding back");
}
void uiName(CLI::App& app, Arguments& a) {
  app.add_option("--uiName,--ui-name", a.uiName, "Name of the user interface; may be empty");
}
void pid(CLI::App& app, Arguments& a) {
  number(app, "--pid", a.pid, "Accepted as the native does, and never sent: the service asks the socket");
}
void uid(CLI::App& app, Arguments& a) {
  number(app, "--uid", a.uid, "The same");
}

void files(CLI::App& app, Arguments& a) {
  app.add_option("--file", a.files, "A file to preload, an absolute path; repeat it for more")
      ->type_name("PATH")
      ->allow_extra_args(false);
  app.add_option_function<std::string>(
         "--files-from",
         [&a](const std::string& path) {
           const std::string problem = path == "-" && a.inputIsTaken
                                           ? "standard input is being read for requests"
                                           : readLines(path, a.files);
           if (!problem.empty()) throw CLI::ValidationError("--files-from", problem);
         },
         "More of them, one per line of this file (- for standard input)")
      ->type_name("PATH");
}

// ---- Messages -------------------------------------------------------------------------------------------

std::string nothing(const Arguments& /*a*/) {
  return "";
}

template <class Message>
std::string levelMessage(const Arguments& a) {
  Message message;
  message.set_scene(a.scene);
  message.set_level(a.level);
  message.set_timeoutms(a.timeoutms);
  message.set_action(a.action);
  return message.SerializeAsString();
}

template <class Message>
std::string withThreads(Message message, const Arguments& a) {
  for (const int32_t tid : a.bindtids) message.add_bindtids(tid);
  return message.SerializeAsString();
}

std::string coreMessage(const Arguments& a) {
  amc::RequestCPUCoreForThread message;
  message.set_scene(a.scene);
  message.set_timeout(a.timeout);
  message.set_action(a.action);
  return withThreads(std::move(message), a);
}

std::string cancelCoreMessage(const Arguments& a) {
  return withThreads(amc::CancelCPUCoreForThread(), a);
}

std::string screenMessage(const Arguments& a) {
  amc::RequestScreenResolution message;
  message.set_level(a.level);
  message.set_uiname(a.uiName);
  return message.SerializeAsString();
}

std::string preloadMessage(const Arguments& a) {
  amc::RequestBootPreLoadResource message;
  for (const std::string& file : a.files) message.add_files(file);
  return message.SerializeAsString();
}

std::string unifyMessage(const Arguments& a) {
  amc::RequestUnifyCPUIOThreadCore message;
  message.set_scene(a.scene);
  message.set_cpulevel(a.cpulevel);
  message.set_iolevel(a.iolevel);
  message.set_timeout(a.timeout);
  message.set_action(a.action);
  return withThreads(std::move(message), a);
}

std::string cancelUnifyMessage(const Arguments& a) {
  amc::CancelUnifyCPUIOThreadCore message;
  message.set_cancelcpu(a.cancelcpu ? 1 : 0);
  message.set_cancelio(a.cancelio ? 1 : 0);
  message.set_cancelthread(a.cancelthread ? 1 : 0);
  return withThreads(std::move(message), a);
}

/// The --help of a request: its own options are not all that it takes.
class RequestFormatter : public CLI::Formatter {
 public:
  std::string make_footer(const CLI::App* /*app*/) const override {
    return "\nWith it go the options of all requests, in front of it or behind it: --socket NAME or --udp\n"
           "ADDRESS:PORT (which service), --wait MS (stay, and keep what was given), --repeat N, --json and\n"
           "others. tarnbooster --help tells of these.\n";
  }
};

}  // namespace

const std::vector<Request>& requests() {
  static const std::vector<Request> all = {
      {"check-permission", FUNCID_CHECK_PERMISSION, "Asks whether requests are allowed", {pid, uid}, nothing},
      {"request-cpu-high-freq",
       FUNCID_REQUEST_CPU_HIGH_FREQ,
       "A high CPU frequency for a scene",
       {scene, action, level, timeoutms},
       levelMessage<amc::RequestCPUHighFreq>},
      {"cancel-cpu-high-freq", FUNCID_CANCEL_CPU_HIGH_FREQ, "Takes the CPU frequency back", {}, nothing},
      {"request-cpu-core-for-thread",
       FUNCID_REQUEST_CPU_CORE_FOR_THREAD,
       "A CPU core for threads",
       {scene, action, bindtids, timeout},
       coreMessage},
      {"cancel-cpu-core-for-thread",
       FUNCID_CANCEL_CPU_CORE_FOR_THREAD,
       "Takes the core of threads back",
       {bindtids},
       cancelCoreMessage},
      {"request-high-io-freq",
       FUNCID_REQUEST_HIGH_IO_FREQ,
       "A high I/O frequency for a scene",
       {scene, action, level, timeoutms},
       levelMessage<amc::RequestHighIOFreq>},
      {"cancel-high-io-freq", FUNCID_CANCEL_HIGH_IO_FREQ, "Takes the I/O frequency back", {}, nothing},
      {"request-screen-resolution",
       FUNCID_REQUEST_SCREEN_RESOLUTION,
       "A screen-resolution level for a user interface",
       {level, uiName},
       screenMessage},
      {"reset-screen-resolution",
       FUNCID_RESET_SCREEN_RESOLUTION,
       "Takes the screen resolution back",
       {},
       nothing},
      {"register-anr-callback",
       FUNCID_REGISTER_ANR_CALLBACK,
       "Asks for pushes; give it a --wait to see them",
       {},
       nothing},
      {"register-boot-preload-resource",
       FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE,
       "Files to preload",
       {files},
       preloadMessage},
      {"terminate-app", FUNCID_TERMINATE_APP, "Asks the service to end this very program", {}, nothing},
      {"request-unify-cpu-io-thread-core",
       FUNCID_REQUEST_UNIFY_CPU_IO_THREAD_CORE,
       "CPU, I/O and thread-core boost in one",
       {scene, action, cpulevel, iolevel, bindtids, timeout},
       unifyMessage},
      {"cancel-unify-cpu-io-thread-core",
       FUNCID_CANCEL_UNIFY_CPU_IO_THREAD_CORE,
       "Takes parts of the unified boost back",
       {cancelcpu, cancelio, cancelthread, bindtids},
       cancelUnifyMessage},
  };
  return all;
}

const char* requestName(uint16_t funcid) {
  for (const Request& request : requests()) {
    if (request.funcid == funcid) return request.name;
  }
  return "unknown";
}

CLI::App& addRequest(CLI::App& app, const Request& request, Arguments& arguments) {
  CLI::App& added = *app.add_subcommand(request.name, request.about)->fallthrough()->group("Requests");
  added.formatter(std::make_shared<RequestFormatter>());
  for (const auto addOption : request.options) addOption(added, arguments);
  return added;
}

}  // namespace cli
