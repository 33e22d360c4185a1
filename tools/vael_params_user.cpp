// vael_params_user.cpp - getting and setting a named parameter of the
// inspection module, from a control tool's process.
//
// One request block (vael_params_ctl_request) goes over the control channel
// per instance asked. A get asks the default instance and prints its answer,
// then, on a host with several instances, asks each of them to tell the
// operator when they do not all agree. A set goes to all instances at once.
// Failures are printed with the operation's prefix and the text of the error.

#include "vael/vael_params.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/vael_runtime.h"
#include "vael/vael_apps.h"

namespace {

static_assert(sizeof(vael_params_ctl_request) == 204, "the parameter request is a wire format");
static_assert(sizeof(vael_handles_ctl_request) == 84, "the handle-table request is a wire format");

constexpr int kInternalError = -7;
constexpr const char kGetPrefix[] = "Get operation failed:";
constexpr const char kSetPrefix[] = "Set operation failed:";

// How the operator wrote the type, which decides how a value is read and shown.
enum class Kind { Int, Ip, String };

bool parse_kind(const char *word, Kind *kind) {
    struct Word {
        const char *text;
        Kind kind;
    };
    static constexpr Word kWords[] = {{"int", Kind::Int}, {"ip", Kind::Ip}, {"string", Kind::String},
                                      {"str", Kind::String}};
    for (const Word &w : kWords) {
        if (word && std::strcmp(word, w.text) == 0) {
            *kind = w.kind;
            return true;
        }
    }
    return false;
}

int wire_type(Kind kind) { return kind == Kind::String ? VAEL_PARAMS_TYPE_STRING : VAEL_PARAMS_TYPE_INT; }

// Prints one failure to standard error; the result is -1 for the caller.
int report(const char *prefix, int error, const char *type_word = nullptr) {
    const char *text = vael_params_error_text(error);
    switch (error) {
    case VAEL_PARAMS_ERR_NAME_TOO_LONG:
        std::fprintf(stderr, text, prefix, VAEL_PARAMS_NAME_SIZE - 1);
        break;
    case VAEL_PARAMS_ERR_VALUE_TOO_LONG:
        std::fprintf(stderr, text, prefix, VAEL_PARAMS_VALUE_SIZE - 1);
        break;
    case VAEL_PARAMS_ERR_UNKNOWN_TYPE:
        std::fprintf(stderr, text, prefix, type_word ? type_word : "(null)");
        break;
    default:
        std::fprintf(stderr, text, prefix);
        break;
    }
    std::fputc('\n', stderr);
    return VAEL_ERROR;
}

// Network order to the integer the module keeps, and back: the same swap.
uint32_t swap_ip(uint32_t v) { return __builtin_bswap32(v); }

void print_value(const char *name, Kind kind, const unsigned char *value) {
    if (kind == Kind::String) {
        const char *text = reinterpret_cast<const char *>(value);
        std::printf("%s = '%.*s'\n", name, (int)strnlen(text, VAEL_PARAMS_VALUE_SIZE), text);
        return;
    }
    int32_t number;
    std::memcpy(&number, value, sizeof number);
    if (kind == Kind::Int) {
        std::printf("%s = %d\n", name, number);
        return;
    }
    struct in_addr address;
    address.s_addr = swap_ip((uint32_t)number);
    std::printf("%s = %s\n", name, inet_ntoa(address));
}

// True when every instance of a host with several gives the answer of the
// one before it (the first is held against the default instance's answer).
bool instances_agree(const char *name, Kind kind, const char *module, const unsigned char *first_answer) {
    int first = 0, last = 0;
    if (!vael_get_instance_range || vael_get_instance_range(&first, &last) != 0 || last <= first)
        return true;
    unsigned char previous[VAEL_PARAMS_VALUE_SIZE];
    std::memcpy(previous, first_answer, sizeof previous);
    bool agree = true;
    for (int instance = first; instance <= last; instance++) {
        unsigned char answer[VAEL_PARAMS_VALUE_SIZE] = {};
        uint32_t size = sizeof answer;
        if (vael_params_request(VAEL_PARAMS_OP_GET, name, wire_type(kind), module, answer, &size, instance) != 0 ||
            std::memcmp(answer, previous, sizeof answer) != 0)
            agree = false;
        std::memcpy(previous, answer, sizeof previous);
    }
    return agree;
}

}  // namespace

extern "C" const char *vael_params_error_text(int error) {
    switch (error) {
    case VAEL_PARAMS_ERR_TOO_FEW_ARGS:
        return "%s not enough arguments";
    case VAEL_PARAMS_ERR_TOO_MANY_ARGS:
        return "%s too many arguments";
    case VAEL_PARAMS_ERR_REQUEST:
        return "%s failed to get parameter from kernel";
    case VAEL_PARAMS_ERR_VALUE_TOO_LONG:
        return "%s value length should not be more than %d";
    case VAEL_PARAMS_ERR_NAME_TOO_LONG:
        return "%s parameter name length should not be more than %d";
    case VAEL_PARAMS_ERR_UNKNOWN_TYPE:
        return "%s unknown type %s";
    default:
        return "%s internal error";
    }
}

extern "C" int vael_params_request(int operation, const char *name, int type, const char *module, void *value,
                                   uint32_t *size, int instance) {
    if (!name || !value || !size || (operation != VAEL_PARAMS_OP_SET && operation != VAEL_PARAMS_OP_GET))
        return kInternalError;
    if (strnlen(name, VAEL_PARAMS_NAME_SIZE) >= VAEL_PARAMS_NAME_SIZE)
        return VAEL_PARAMS_ERR_NAME_TOO_LONG;
    if (type != VAEL_PARAMS_TYPE_INT && type != VAEL_PARAMS_TYPE_STRING)
        return VAEL_PARAMS_ERR_UNKNOWN_TYPE;
    if (operation == VAEL_PARAMS_OP_SET && *size > VAEL_PARAMS_VALUE_SIZE)
        return VAEL_PARAMS_ERR_VALUE_TOO_LONG;
    // A module name that does not fit cannot be sent cut: it would name
    // another module.
    if (module && strnlen(module, VAEL_PARAMS_MODULE_SIZE) >= VAEL_PARAMS_MODULE_SIZE)
        return kInternalError;

    auto *block = static_cast<vael_params_ctl_request *>(VAEL_KMALLOC(sizeof(vael_params_ctl_request)));
    if (!block)
        return VAEL_PARAMS_ERR_REQUEST;
    std::memset(block, 0, sizeof *block);
    block->operation = (uint32_t)operation;
    std::memcpy(block->name, name, std::strlen(name));
    block->type = (uint32_t)type;
    if (module)
        std::memcpy(block->module, module, std::strlen(module));
    if (operation == VAEL_PARAMS_OP_SET) {
        std::memcpy(block->value, value, *size);
        block->value_len = *size;
    } else {
        block->value_len = VAEL_PARAMS_VALUE_SIZE;
    }

    vael_ctl_record record;
    std::memset(&record, 0, sizeof record);
    record.command = VAEL_PARAMS_CTL_COMMAND;
    record.data = block;
    record.data_len = sizeof *block;
    int result = 0;
    if (!vael_ioctl_func_multik || !vael_get_ioctl_num ||
        vael_ioctl_func_multik(vael_get_ioctl_num(), &record, instance) != 0) {
        result = VAEL_PARAMS_ERR_REQUEST;
    } else if (operation == VAEL_PARAMS_OP_GET) {
        // An integer is four bytes whatever the host says; a string's length
        // is the host's word, held against both sizes before it is trusted.
        const uint32_t len = type == VAEL_PARAMS_TYPE_INT ? (uint32_t)sizeof(int32_t) : block->value_len;
        if (len > *size || len > VAEL_PARAMS_VALUE_SIZE) {
            result = VAEL_PARAMS_ERR_VALUE_TOO_LONG;
        } else {
            const uint32_t copy = *size < VAEL_PARAMS_VALUE_SIZE ? *size : VAEL_PARAMS_VALUE_SIZE;
            std::memcpy(value, block->value, copy);
            *size = len;
        }
    }
    VAEL_KFREE(block, sizeof *block);
    return result;
}

extern "C" int vael_params_user_get_param_int_multik(const char *name, int *value, int instance) {
    if (!value)
        return VAEL_ERROR;
    *value = 0;
    unsigned char answer[VAEL_PARAMS_VALUE_SIZE] = {};
    uint32_t size = sizeof answer;
    if (vael_params_request(VAEL_PARAMS_OP_GET, name, VAEL_PARAMS_TYPE_INT, nullptr, answer, &size, instance) != 0)
        return VAEL_ERROR;
    std::memcpy(value, answer, sizeof *value);
    return VAEL_OK;
}

extern "C" int vael_params_user_get_param_int(const char *name, int *value) {
    return vael_params_user_get_param_int_multik(name, value, VAEL_PARAMS_DEFAULT_INSTANCE);
}

namespace {

// The words of a get (type, name [, module]) or a set (type, name, value
// [, module]): -1, with the refusal printed, when their count or type word
// is wrong; else 0 with the type.
int read_command(const char *prefix, int argc, char **argv, int needed, Kind *kind) {
    if (argc < needed || !argv)
        return report(prefix, VAEL_PARAMS_ERR_TOO_FEW_ARGS);
    if (argc > needed + 1)
        return report(prefix, VAEL_PARAMS_ERR_TOO_MANY_ARGS);
    if (!parse_kind(argv[0], kind))
        return report(prefix, VAEL_PARAMS_ERR_UNKNOWN_TYPE, argv[0]);
    return 0;
}

}  // namespace

extern "C" int vael_params_user_ctl_get(int argc, char **argv) {
    Kind kind;
    if (const int refused = read_command(kGetPrefix, argc, argv, 2, &kind))
        return refused;
    const char *name = argv[1];
    const char *module = argc == 3 ? argv[2] : nullptr;
    unsigned char answer[VAEL_PARAMS_VALUE_SIZE] = {};
    uint32_t size = sizeof answer;
    const int error = vael_params_request(VAEL_PARAMS_OP_GET, name, wire_type(kind), module, answer, &size,
                                          VAEL_PARAMS_DEFAULT_INSTANCE);
    if (error != 0)
        return report(kGetPrefix, error);
    print_value(name, kind, answer);
    if (!instances_agree(name, kind, module, answer))
        std::printf("Note: Not all instances have the same value.\nTo see the value of an instance different from "
                    "%d, run 'qx -i <instance_num> ctl get'\n",
                    0);
    return VAEL_OK;
}

extern "C" int vael_params_user_ctl_set(int argc, char **argv) {
    Kind kind;
    if (const int refused = read_command(kSetPrefix, argc, argv, 3, &kind))
        return refused;
    const char *name = argv[1];
    const char *text = argv[2] ? argv[2] : "";
    const char *module = argc == 4 ? argv[3] : nullptr;
    int error;
    if (kind == Kind::String) {
        uint32_t size = (uint32_t)std::strlen(text) + 1;
        error = vael_params_request(VAEL_PARAMS_OP_SET, name, VAEL_PARAMS_TYPE_STRING, module,
                                    const_cast<char *>(text), &size, VAEL_PARAMS_ALL_INSTANCES);
    } else {
        int32_t number = kind == Kind::Int ? (int32_t)std::strtol(text, nullptr, 10)
                                           : (int32_t)swap_ip((uint32_t)inet_addr(text));
        uint32_t size = sizeof number;
        error = vael_params_request(VAEL_PARAMS_OP_SET, name, VAEL_PARAMS_TYPE_INT, module, &number, &size,
                                    VAEL_PARAMS_ALL_INSTANCES);
    }
    return error != 0 ? report(kSetPrefix, error) : VAEL_OK;
}
