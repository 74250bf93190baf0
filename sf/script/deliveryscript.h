// How the script readers (tcpReader, httpReader) deliver a message: the
// reader's script decides where each message goes, usually with enQ.
#pragma once

namespace sf {

// Evaluates a reader's delivery script with the current message. A script
// that is exactly "enQ NAME" (a plain queue name, the usual case) skips the
// interpreter and its lock: the queue is looked up once per reader thread and
// the message goes onto it directly, with the enQ command's log lines and the
// same exception as a failed evaluation. Every other script is evaluated, and
// so is every script once a script has renamed or redefined enQ.
void sfi_runDeliveryScript(const char* script);

}  // namespace sf
