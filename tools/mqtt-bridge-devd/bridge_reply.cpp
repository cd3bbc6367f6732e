#include "bridge_reply.h"

#include <json/json.h>

std::string reply_text(int code, const std::string& message) {
    Json::Value value(Json::objectValue);
    value["code"] = code;
    if (code != ReplyCode::kOk) value["message"] = message;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    // Plain ASCII out, whatever the message quotes: the text goes into a bus string.
    builder["emitUTF8"] = false;
    return Json::writeString(builder, value);
}
