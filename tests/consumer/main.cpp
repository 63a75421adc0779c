// A process of the product in miniature, built against an installed package
// through the umbrella header alone: a log record, parameters in a string
// form, in a message, in a frame over loopback and back, and an error text
// read from the package's own data directory.
#include <cstdio>
#include <cstring>
#include <string>

#include "CorvanthUtil.h"

namespace {

int gFail(char const* what) {
  std::fprintf(stderr, "consumer: %s\n", what);
  return 1;
}

}  // namespace

int main() {
  nLog::cCaptureTarget capture;
  if (!nLog::gAttachTarget(capture, "Warning")) return gFail("no capture target");
  CORVANTH_LOG_AT(nLog::nBasic::sWarningTag_, "consumer", 7, "hello from " << "a consumer");
  nLog::gDetachTarget(capture);
  auto records = capture.fRecords();
  if (records.size() != 1 || records[0].text != "hello from a consumer" || records[0].line != 7)
    return gFail("the log record");

  CAssociativeArray parameters;
  parameters.AddCouple("user", "alice");
  parameters.AddCouple("blob", "a\0b", 3);
  char const* form = nullptr;
  int formLength = 0;
  parameters.ToString(form, formLength, false, false);
  cCorvanthMessage const request(41, "host2", "agent", "host1", "console", static_cast<QType>(3),
                                 5, 2, form, unsigned(formLength));

  namespace nSock = nCommunication::nSocket;
  nSock::cHandleValid const listener = nSock::gCreateListenerOn("127.0.0.1", 0);
  StreamSocket server(listener, false, nullptr, false, false, "");
  StreamSocket client;
  client.Connect("127.0.0.1", nSock::gLocalPort(listener), nSock::cSocketOptions());
  StreamSocket accepted(nSock::gValidate(std::get<0>(server.Accept(nSock::cSocketOptions()))),
                        false, nullptr, false, false, "");
  short type = 0, subtype = 0;
  char* payload = nullptr;
  int length = 0;
  if (!client.SendTypedMessageZ2(5, 2, request.getPackedBuf(), int(request.getPackedBufLen())) ||
      !accepted.WaitTypedMessageZ1(type, subtype, payload, length, nullptr))
    return gFail("the frame");
  cCorvanthMessage const received(payload, unsigned(length), type, subtype);
  accepted.FreeMessage(payload);
  CAssociativeArray read;
  read.FromString(received.getData(), int(received.getDatalen()));
  char const* blob = nullptr;
  int blobLength = 0;
  read.GetValueOfParameter("blob", blob, blobLength);
  if (received.getMessageId() != 41 || std::strcmp(received.getToClient(), "agent") != 0 ||
      std::strcmp(read.GetValueOfParameter("user"), "alice") != 0 ||
      std::string(blob, std::size_t(blobLength)) != std::string("a\0b", 3))
    return gFail("the message as received");

  // The text of key 10 comes from the package's own loadengine.frm.
  std::string syntax;
  try {
    CAssociativeArray().FromStringZTS("1 x");
  } catch (CIllegalAssoSyntaxException const& error) {
    syntax = error.what();
  }
  if (syntax.find("Syntax error in the parameter string at") == std::string::npos)
    return gFail(("the error text: " + syntax).c_str());

  std::printf("consumer ok: CorvanthUtil %s, record %s", nCorvanth::gVersion(),
              nLog::gFormatRecord(records[0]).c_str());
  return 0;
}
