// vael_nfa.cpp - Thompson NFA construction inside a DFA object, and subset
// construction through the process-wide states hash.
//
// An NFA state is a state record of the store: its character edges are its
// transition table, its epsilon edges its states list. Every build operation
// consumes its fragment arguments on success and on failure, so a caller
// never frees what it handed in. States are never freed one by one: they live
// until the environment's DFA is destroyed.
//
// The states hash maps a set of states (the key: local id, count, ids) to the
// state that stands for it in one run. The local id keeps concurrent runs
// apart; each access holds "states_hash_table_lock" for that access only.

#include <cstring>

#include "rem/vael_dfa_internal.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"
#include "vael/vael_htab.h"

namespace {

const char kTopics[] = "K_PM_INT";

vael_mutex *g_states_hash_table_lock;
int g_states_hash_table_id = -1;
uint32_t g_local_nfa_id;

// A state pointer as the table's value words.
constexpr int kValWords = (int)((sizeof(vael_dfa_state *) + sizeof(uint32_t) - 1) / sizeof(uint32_t));

size_t key_bytes(uint32_t key_len) { return (size_t)key_len * sizeof(uint32_t); }

void free_key(uint32_t *key, uint32_t key_len) {
    if (key)
        VAEL_KFREE(key, key_bytes(key_len));
}

// Every key holds its own length: n + 2 words.
uint32_t key_len_of(const uint32_t *key) { return key[1] + 2; }

bool caseless(const vael_nfa_env *env) { return (vael_dfa_get_flags(env->dfa) & VAEL_DFA_CASELESS) != 0; }

void destroy2(vael_nfa *a, vael_nfa *b) {
    vael_nfa_destroy(a);
    vael_nfa_destroy(b);
}

}  // namespace

// ---------------------------------------------------------------- environments and handles

extern "C" vael_nfa_env *vael_nfa_env_create(uint32_t flags, vael_pm_error *error) {
    vael_nfa_env *env = VAEL_PM_NEW_ZEROED(vael_nfa_env);
    if (!env)
        return nullptr;
    env->dfa = vael_dfa_create(flags, error);
    if (!env->dfa) {
        VAEL_PM_KFREE(env, sizeof(*env));
        return nullptr;
    }
    return env;
}

extern "C" int vael_nfa_env_destroy(vael_nfa_env *env) {
    if (!env)
        return 0;
    if (env->nfa) {
        vael_nfa_destroy(env->nfa);
        env->nfa = nullptr;
    }
    if (env->ref_count != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: ref count is %u, not destroying\n", env->ref_count);
        VAEL_ASSERT(0, "ref count > 0, there are still nfas using this env.");
        return -1;
    }
    vael_dfa_destroy(env->dfa);
    VAEL_PM_KFREE(env, sizeof(*env));
    return 0;
}

extern "C" vael_nfa *vael_nfa_env_create_nfa(vael_nfa_env *env) {
    if (!env)
        return nullptr;
    vael_nfa *nfa = VAEL_PM_NEW_ZEROED(vael_nfa);
    if (!nfa)
        return nullptr;
    nfa->env = env;
    env->ref_count++;
    return nfa;
}

extern "C" void vael_nfa_destroy(vael_nfa *nfa) {
    if (!nfa)
        return;
    nfa->env->ref_count--;
    VAEL_PM_KFREE(nfa, sizeof(*nfa));
}

extern "C" int vael_nfa_env_finalize(vael_nfa_env *env, vael_nfa *nfa, int anchored) {
    if (!env || !nfa || nfa->env != env || !nfa->start || !nfa->end)
        return -1;
    vael_dfa_set_initial_state(env->dfa, nfa->start);
    const int rc = anchored ? vael_dfa_state_set_anchored_final(nfa->end, VAEL_DFA_NFA_PATTERN_ID)
                            : vael_dfa_state_set_final(nfa->end, VAEL_DFA_NFA_PATTERN_ID, 0, 0);
    if (rc < 0)
        return -1;
    vael_nfa_destroy(env->nfa);
    env->nfa = nfa;
    env->env_flags |= VAEL_NFA_ENV_FINALIZED;
    return 0;
}

extern "C" vael_dfa *vael_nfa_env_get_dfa(vael_nfa_env *env) {
    if (!env || !(env->env_flags & VAEL_NFA_ENV_FINALIZED)) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: nfa env not finalized. Cannot return dfa\n");
        return nullptr;
    }
    return env->dfa;
}

extern "C" uint32_t vael_nfa_env_get_ref_count(const vael_nfa_env *env) { return env ? env->ref_count : 0; }
extern "C" vael_dfa_state *vael_nfa_get_start(const vael_nfa *nfa) { return nfa ? nfa->start : nullptr; }
extern "C" vael_dfa_state *vael_nfa_get_end(const vael_nfa *nfa) { return nfa ? nfa->end : nullptr; }

extern "C" vael_dfa_state *vael_nfa_create_state(vael_nfa *nfa) {
    if (!nfa)
        return nullptr;
    vael_dfa_state *s = vael_dfa_state_create(nfa->env->dfa);
    if (!s)
        return nullptr;
    // A state that gets no list stays in the machine, listless, and dies
    // with it; nothing reaches it.
    vael_states_list *list = vael_states_list_create();
    if (!list)
        return nullptr;
    vael_dfa_state_set_states_list(s, list);
    return s;
}

extern "C" int vael_nfa_add_epsilon(vael_dfa_state *from, vael_dfa_state *to) {
    if (!from || !to || !vael_dfa_state_get_states_list(from))
        return -1;
    return vael_states_list_add(vael_dfa_state_get_states_list(from), to);
}

// ---------------------------------------------------------------- build operations

extern "C" vael_nfa *vael_nfa_build_empty_nfa(vael_nfa_env *env) {
    vael_nfa *nfa = vael_nfa_env_create_nfa(env);
    if (!nfa)
        return nullptr;
    vael_dfa_state *s = vael_nfa_create_state(nfa);
    vael_dfa_state *e = s ? vael_nfa_create_state(nfa) : nullptr;
    if (!e || vael_nfa_add_epsilon(s, e) != 0) {
        vael_nfa_destroy(nfa);
        return nullptr;
    }
    nfa->start = s;
    nfa->end = e;
    return nfa;
}

extern "C" vael_nfa *vael_nfa_build_chars(vael_nfa_env *env, const unsigned char *bytes, uint32_t length) {
    if (!env || (!bytes && length))
        return nullptr;
    vael_nfa *nfa = vael_nfa_env_create_nfa(env);
    if (!nfa)
        return nullptr;
    const int sensitive = caseless(env) ? 0 : 1;
    vael_dfa_state *prev = vael_nfa_create_state(nfa);
    nfa->start = prev;
    for (uint32_t i = 0; prev && i < length; i++) {
        vael_dfa_state *next = vael_nfa_create_state(nfa);
        if (!next || vael_dfa_state_add_trans_ex(prev, bytes[i], next, sensitive) != 0)
            prev = nullptr;
        else
            prev = next;
    }
    if (!prev) {
        vael_nfa_destroy(nfa);
        return nullptr;
    }
    nfa->end = prev;
    return nfa;
}

extern "C" vael_nfa *vael_nfa_build_range(vael_nfa_env *env, vael_pmascii_range *range) {
    if (!env || !range)
        return nullptr;
    vael_nfa *nfa = vael_nfa_env_create_nfa(env);
    if (!nfa)
        return nullptr;
    vael_dfa_state *s = vael_nfa_create_state(nfa);
    vael_dfa_state *e = s ? vael_nfa_create_state(nfa) : nullptr;
    if (!e) {
        vael_nfa_destroy(nfa);
        return nullptr;
    }
    nfa->start = s;
    nfa->end = e;
    const bool fold = caseless(env);
    const int sensitive = fold ? 0 : 1;
    int rc = 0;
    if (range->negated) {
        // A negated class leaves out both cases of a letter it names, so the
        // table is folded before its holes are read.
        if (fold)
            for (int c = 'a'; c <= 'z'; c++) {
                const uint8_t either = range->chars[c] | range->chars[c - 32];
                range->chars[c] = range->chars[c - 32] = either ? 1 : 0;
            }
        for (uint32_t c = 0; c < 256 && rc == 0; c++)
            if (!range->chars[c])
                rc = vael_dfa_state_add_trans_ex(s, (unsigned char)c, e, sensitive);
    } else {
        for (uint32_t c = range->first; c <= range->last && rc == 0; c++)
            if (range->chars[c])
                rc = vael_dfa_state_add_trans_ex(s, (unsigned char)c, e, sensitive);
    }
    if (rc != 0) {
        vael_nfa_destroy(nfa);
        return nullptr;
    }
    return nfa;
}

extern "C" vael_nfa *vael_nfa_build_concat(vael_nfa *first, vael_nfa *second) {
    if (!first || !second || first->env != second->env) {
        destroy2(first, second);
        return nullptr;
    }
    if (vael_nfa_add_epsilon(first->end, second->start) != 0) {
        destroy2(first, second);
        return nullptr;
    }
    first->end = second->end;
    vael_nfa_destroy(second);
    return first;
}

extern "C" vael_nfa *vael_nfa_build_alternate(vael_nfa *first, vael_nfa *second) {
    if (!first || !second || first->env != second->env) {
        destroy2(first, second);
        return nullptr;
    }
    vael_dfa_state *s = vael_nfa_create_state(first);
    vael_dfa_state *e = s ? vael_nfa_create_state(first) : nullptr;
    if (!e || vael_nfa_add_epsilon(s, first->start) != 0 || vael_nfa_add_epsilon(s, second->start) != 0 ||
        vael_nfa_add_epsilon(first->end, e) != 0 || vael_nfa_add_epsilon(second->end, e) != 0) {
        destroy2(first, second);
        return nullptr;
    }
    first->start = s;
    first->end = e;
    vael_nfa_destroy(second);
    return first;
}

extern "C" vael_nfa *vael_nfa_build_kleene(vael_nfa *nfa) {
    if (!nfa)
        return nullptr;
    vael_dfa_state *s = vael_nfa_create_state(nfa);
    vael_dfa_state *e = s ? vael_nfa_create_state(nfa) : nullptr;
    if (!e || vael_nfa_add_epsilon(nfa->end, nfa->start) != 0 || vael_nfa_add_epsilon(s, nfa->start) != 0 ||
        vael_nfa_add_epsilon(nfa->end, e) != 0 || vael_nfa_add_epsilon(s, e) != 0) {
        vael_nfa_destroy(nfa);
        return nullptr;
    }
    nfa->start = s;
    nfa->end = e;
    return nfa;
}

extern "C" vael_nfa *vael_nfa_build_quantify(vael_nfa *nfa, uint32_t count) {
    if (!nfa)
        return nullptr;
    if (count == 0) {
        vael_nfa *empty = vael_nfa_build_empty_nfa(nfa->env);
        vael_nfa_destroy(nfa);
        return empty;
    }
    if (count == 1)
        return nfa;
    // Copies come from the argument as it stands; it goes last, since a
    // concatenation would reach into it from its end.
    vael_nfa *result = vael_nfa_dup(nfa);
    for (uint32_t i = 2; result && i < count; i++)
        result = vael_nfa_build_concat(result, vael_nfa_dup(nfa));
    if (!result) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: FAILED\n");
        vael_nfa_destroy(nfa);
        return nullptr;
    }
    result = vael_nfa_build_concat(result, nfa);
    if (!result)
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: FAILED\n");
    return result;
}

namespace {

// The copy that stands for `old` in a dup run; null on failure. A copy made
// now is put on the work list.
vael_dfa_state *correlate(vael_dfa *machine, vael_dfa_state *old, uint32_t local_id, lst_list *free_list,
                          vael_states_list *work, int *existed) {
    vael_states_list *key_list = vael_states_list_create();
    if (!key_list || vael_states_list_add(key_list, old) != 0) {
        vael_states_list_destroy(key_list);
        return nullptr;
    }
    vael_dfa_state *copy = vael_states_list_get_correlating_state(machine, key_list, existed, local_id, free_list);
    if (copy && !*existed && work && vael_states_list_add(work, copy) != 0)
        return nullptr;
    return copy;
}

// Gives the copy of every state S on the work list its edges. S's states list
// holds its old state until the edges are made; then it holds the epsilons.
bool dup_walk(vael_dfa *machine, vael_states_list *work, uint32_t local_id, lst_list *free_list) {
    int existed = 0;
    while (vael_dfa_state *copy = vael_states_list_remove(work)) {
        vael_dfa_state *old = vael_states_list_first(vael_dfa_state_get_states_list(copy));
        for (uint32_t c = 0; c < 256; c++) {
            vael_dfa_state *t = vael_dfa_state_move_orig(copy, (unsigned char)c);
            if (!t)
                continue;
            vael_dfa_state *tc = correlate(machine, t, local_id, free_list, work, &existed);
            // Both cases of a caseless edge are entries by now: no folding.
            if (!tc || vael_dfa_state_add_trans(copy, (unsigned char)c, tc) != 0)
                return false;
        }
        vael_states_list *list = vael_dfa_state_get_states_list(copy);
        vael_states_list_remove(list);
        uintptr_t v = 0;
        vael_states_list *eps = vael_dfa_state_get_states_list(old);
        for (lst_cursor cur = lst_iterate(eps, nullptr, &v); cur; cur = lst_iterate(eps, cur, &v)) {
            vael_dfa_state *tc =
                correlate(machine, reinterpret_cast<vael_dfa_state *>(v), local_id, free_list, work, &existed);
            if (!tc || vael_nfa_add_epsilon(copy, tc) != 0)
                return false;
        }
    }
    return true;
}

}  // namespace

extern "C" vael_nfa *vael_nfa_dup(vael_nfa *nfa) {
    if (!nfa || !nfa->start || !nfa->end)
        return nullptr;
    uint32_t local_id = 0;
    lst_list *free_list = nullptr;
    if (vael_states_hash_table_local_nfa_init(&local_id, &free_list) != 0)
        return nullptr;
    vael_dfa *machine = nfa->env->dfa;
    vael_nfa *copy = vael_nfa_env_create_nfa(nfa->env);
    vael_states_list *work = vael_states_list_create();
    bool ok = copy && work;
    int existed = 0;
    if (ok) {
        copy->start = correlate(machine, nfa->start, local_id, free_list, work, &existed);
        ok = copy->start && dup_walk(machine, work, local_id, free_list);
    }
    if (ok) {
        copy->end = correlate(machine, nfa->end, local_id, free_list, nullptr, &existed);
        if (copy->end && !existed) {
            VAEL_ASSERT(0, "No end state");
            ok = false;
        }
        ok = ok && copy->end;
    }
    // A copy that is left half made on failure may still hold an old state
    // in its list: the key list. Every state dies with the machine anyway.
    vael_states_list_destroy(work);
    vael_states_hash_table_local_nfa_fini(free_list);
    if (!ok) {
        vael_nfa_destroy(copy);
        return nullptr;
    }
    return copy;
}

// ---------------------------------------------------------------- the states hash

extern "C" int vael_states_hash_table_id(void) { return g_states_hash_table_id; }

extern "C" int vael_nfa_init(void) {
    if (g_states_hash_table_id != -1)
        return 0;
    if (tqlock_lock_init(&g_states_hash_table_lock) != 0)
        return -1;
    int id = -1;
    if (vael_htab_create_release_qx_lock("states_hash_table", VAEL_STATES_HASH_BINS, 0, nullptr, nullptr, nullptr,
                                         &g_states_hash_table_lock, &id, nullptr) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: failed to create the states hash table\n");
        tqlock_lock_term(&g_states_hash_table_lock);
        return -1;
    }
    g_states_hash_table_id = id;
    return 0;
}

extern "C" void vael_nfa_fini(void) {
    if (g_states_hash_table_id == -1)
        return;
    MtMutexLock(g_states_hash_table_lock);
    vael_htab_destroy(g_states_hash_table_id);
    g_states_hash_table_id = -1;
    MtMutexUnLock(g_states_hash_table_lock);
    tqlock_lock_term(&g_states_hash_table_lock);
}

extern "C" int vael_states_hash_table_local_nfa_init(uint32_t *local_id, lst_list **free_list) {
    if (g_states_hash_table_id == -1) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: states hash table is not initialised\n");
        return -1;
    }
    lst_list *list = lst_create();
    if (!list)
        return -1;
    MtMutexLock(g_states_hash_table_lock);
    *local_id = g_local_nfa_id++;
    MtMutexUnLock(g_states_hash_table_lock);
    *free_list = list;
    return 0;
}

extern "C" void vael_states_hash_table_local_nfa_fini(lst_list *free_list) {
    if (!free_list)
        return;
    MtMutexLock(g_states_hash_table_lock);
    uintptr_t v = 0;
    while (lst_remove_at_start(free_list, &v) == 1) {
        uint32_t *key = reinterpret_cast<uint32_t *>(v);
        vael_htab_del(g_states_hash_table_id, key, (int)key_len_of(key), __func__);
        free_key(key, key_len_of(key));
    }
    lst_destroy(free_list);
    MtMutexUnLock(g_states_hash_table_lock);
}

extern "C" int vael_states_hash_table_create_key(vael_states_list *list, uint32_t local_id, uint32_t **key,
                                                 uint32_t *key_len) {
    const uint32_t n = vael_states_list_num_of_elems(list);
    // The empty set has the key of three equal ids, which no real set has.
    const uint32_t len = n ? n + 2 : 5;
    uint32_t *k = static_cast<uint32_t *>(VAEL_KMALLOC(key_bytes(len)));
    if (!k) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: failed to allocate states hash table key\n");
        return -1;
    }
    k[0] = local_id;
    k[1] = len - 2;
    if (n == 0) {
        k[2] = k[3] = k[4] = 1;
    } else {
        struct Fill {
            uint32_t *at;
            uint32_t left;
        } fill{k + 2, n};
        const int rc = vael_states_list_iterate(
            list,
            [](vael_dfa_state *s, void *ctx) {
                auto *f = static_cast<Fill *>(ctx);
                if (f->left == 0)
                    return 1;
                *f->at++ = vael_dfa_state_get_id(s);
                f->left--;
                return 0;
            },
            &fill);
        if (rc != 0 || fill.left != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: failed to iterate on epsilon_closure\n");
            free_key(k, len);
            return -1;
        }
    }
    *key = k;
    *key_len = len;
    return 0;
}

extern "C" vael_dfa_state *vael_states_hash_table_get(const uint32_t *key, uint32_t key_len, int *failed) {
    uint32_t vals[kValWords] = {};
    int len = kValWords;
    int result = 0;
    *failed = 0;
    MtMutexLock(g_states_hash_table_lock);
    const int rc = vael_htab_get(g_states_hash_table_id, key, (int)key_len, vals, &len, 0, &result);
    MtMutexUnLock(g_states_hash_table_lock);
    if (rc != 0) {
        if (result != VAEL_HTAB_GET_MISSING) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: vael_htab_get failed\n");
            *failed = 1;
        }
        return nullptr;
    }
    vael_dfa_state *state = nullptr;
    std::memcpy(&state, vals, sizeof(state));
    return state;
}

extern "C" int vael_states_hash_table_set(lst_list *free_list, uint32_t *key, uint32_t key_len,
                                          vael_dfa_state *state) {
    uint32_t vals[kValWords] = {};
    std::memcpy(vals, &state, sizeof(state));
    int result = 0;
    MtMutexLock(g_states_hash_table_lock);
    const int rc = vael_htab_set(g_states_hash_table_id, key, (int)key_len, vals, kValWords, 0, &result);
    int out = 0;
    if (rc != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: vael_htab_set failed and returned %d\n", result);
        out = -1;
    } else if (!lst_insert(free_list, reinterpret_cast<uintptr_t>(key))) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: failed to insert new key into states_hash_table_free_list\n");
        vael_htab_del(g_states_hash_table_id, key, (int)key_len, __func__);
        out = -1;
    }
    MtMutexUnLock(g_states_hash_table_lock);
    return out;
}

extern "C" void vael_states_hash_table_del(lst_list *free_list, uint32_t *key, uint32_t key_len) {
    MtMutexLock(g_states_hash_table_lock);
    vael_htab_del(g_states_hash_table_id, key, (int)key_len, __func__);
    if (free_list)
        lst_delete_val_one(free_list, reinterpret_cast<uintptr_t>(key));
    MtMutexUnLock(g_states_hash_table_lock);
}

extern "C" vael_dfa_state *vael_states_list_get_correlating_state(vael_dfa *machine, vael_states_list *list,
                                                                  int *existed, uint32_t local_id,
                                                                  lst_list *free_list) {
    *existed = 0;
    uint32_t *key = nullptr;
    uint32_t key_len = 0;
    if (vael_states_hash_table_create_key(list, local_id, &key, &key_len) != 0) {
        vael_states_list_destroy(list);
        return nullptr;
    }
    int failed = 0;
    vael_dfa_state *state = vael_states_hash_table_get(key, key_len, &failed);
    if (state || failed) {
        *existed = state ? 1 : 0;
        vael_states_list_destroy(list);
        free_key(key, key_len);
        return state;
    }
    state = vael_dfa_state_create(machine);
    if (!state || vael_states_hash_table_set(free_list, key, key_len, state) != 0) {
        // A state made here but not entered stays in the machine unreached.
        vael_states_list_destroy(list);
        free_key(key, key_len);
        return nullptr;
    }
    vael_dfa_state_set_states_list(state, list);
    return state;
}

// ---------------------------------------------------------------- subset construction

namespace {

// The epsilon closure of `list`, which it consumes; null on failure.
vael_states_list *epsilon_closure(vael_states_list *list, int *is_final) {
    *is_final = 0;
    if (vael_states_list_is_empty(list))
        return list;
    vael_states_list *result = vael_states_list_create();
    if (!result || vael_states_list_append(list, result) != 0) {
        vael_states_list_destroy(result);
        vael_states_list_destroy(list);
        return nullptr;
    }
    while (vael_dfa_state *s = vael_states_list_remove(list)) {
        if (vael_dfa_state_is_final(s))
            *is_final = 1;
        uintptr_t v = 0;
        vael_states_list *eps = vael_dfa_state_get_states_list(s);
        for (lst_cursor c = lst_iterate(eps, nullptr, &v); c; c = lst_iterate(eps, c, &v)) {
            vael_dfa_state *t = reinterpret_cast<vael_dfa_state *>(v);
            if (vael_states_list_in(result, t))
                continue;
            if (vael_states_list_add(result, t) != 0 || vael_states_list_add(list, t) != 0) {
                vael_states_list_destroy(result);
                vael_states_list_destroy(list);
                return nullptr;
            }
        }
    }
    vael_states_list_destroy(list);
    return result;
}

// The NFA states reached from the DFA state's set on the byte; null on failure.
vael_states_list *move(const vael_dfa_state *d, unsigned char byte) {
    vael_states_list *m = vael_states_list_create();
    if (!m)
        return nullptr;
    uintptr_t v = 0;
    vael_states_list *set = vael_dfa_state_get_states_list(d);
    for (lst_cursor c = lst_iterate(set, nullptr, &v); c; c = lst_iterate(set, c, &v)) {
        vael_dfa_state *t = vael_dfa_state_get_next_state(reinterpret_cast<vael_dfa_state *>(v), byte);
        if (t && vael_states_list_add(m, t) != 0) {
            vael_states_list_destroy(m);
            return nullptr;
        }
    }
    return m;
}

vael_states_list *copy_of(vael_states_list *list) {
    vael_states_list *c = vael_states_list_create();
    if (c && vael_states_list_append(list, c) != 0) {
        vael_states_list_destroy(c);
        return nullptr;
    }
    return c;
}

// One run of subset construction; its work variables and what it holds.
struct SubsetRun {
    vael_nfa_env *env;
    int32_t pattern_id;
    vael_dfa *dfa = nullptr;
    uint32_t local_id = 0;
    lst_list *free_list = nullptr;
    vael_states_list *pending = nullptr;
    vael_states_list *last_move = nullptr;
    vael_dfa_state *last_target = nullptr;
    vael_states_list *prev_move = nullptr;
    vael_dfa_state *prev_target = nullptr;
    vael_dfa_state *final_sink = nullptr;
    int anchored = 0;
    unsigned failed_line = 0;

    ~SubsetRun() {
        vael_states_list_destroy(pending);
        vael_states_list_destroy(last_move);
        vael_states_list_destroy(prev_move);
        vael_states_hash_table_local_nfa_fini(free_list);
    }

    bool fail(unsigned line) {
        failed_line = line;
        return false;
    }

    // The state standing for the closure of m (consumed), made final and
    // queued when new.
    vael_dfa_state *target_of(vael_states_list *m) {
        int is_final = 0;
        vael_states_list *closure = epsilon_closure(m, &is_final);
        if (!closure)
            return nullptr;
        if (is_final && final_sink) {
            vael_states_list_destroy(closure);
            return final_sink;
        }
        int existed = 0;
        vael_dfa_state *t = vael_states_list_get_correlating_state(dfa, closure, &existed, local_id, free_list);
        if (!t || existed)
            return t;
        if (is_final && vael_dfa_state_set_final_ex(t, pattern_id, anchored) < 0)
            return nullptr;
        return vael_states_list_add(pending, t) == 0 ? t : nullptr;
    }

    bool start() {
        const vael_nfa *nfa = env->nfa;
        anchored = vael_dfa_state_is_anchored_final(nfa->end);
        if (!(vael_dfa_get_flags(env->dfa) & VAEL_DFA_NO_FINAL_SINK)) {
            // After a first success nothing stops the match: one absorbing
            // final state stands for every final set.
            final_sink = vael_dfa_state_create(dfa);
            if (!final_sink || vael_dfa_state_set_final_ex(final_sink, pattern_id, anchored) < 0)
                return fail(__LINE__);
            for (uint32_t c = 0; c < 256; c++)
                vael_dfa_state_add_trans(final_sink, (unsigned char)c, final_sink);
        }
        vael_states_list *first = vael_states_list_create();
        if (!first || vael_states_list_add(first, nfa->start) != 0) {
            vael_states_list_destroy(first);
            return fail(__LINE__);
        }
        last_move = copy_of(first);
        if (!last_move) {
            vael_states_list_destroy(first);
            return fail(__LINE__);
        }
        int is_final = 0;
        vael_states_list *closure = epsilon_closure(first, &is_final);
        if (!closure)
            return fail(__LINE__);
        int existed = 0;
        vael_dfa_state *init = vael_states_list_get_correlating_state(dfa, closure, &existed, local_id, free_list);
        if (!init)
            return fail(__LINE__);
        if (is_final && vael_dfa_state_set_final_ex(init, pattern_id, anchored) < 0)
            return fail(__LINE__);
        vael_dfa_set_initial_state(dfa, init);
        last_target = init;
        return vael_states_list_add(pending, init) == 0 ? true : fail(__LINE__);
    }

    bool run() {
        while (vael_dfa_state *d = vael_states_list_remove(pending)) {
            for (uint32_t c = 0; c < 256; c++) {
                vael_states_list *m = move(d, (unsigned char)c);
                if (!m)
                    return fail(__LINE__);
                vael_dfa_state *target = nullptr;
                if (vael_states_list_are_equal(m, last_move)) {
                    target = last_target;
                    vael_states_list_destroy(m);
                } else if (prev_move && vael_states_list_are_equal(m, prev_move)) {
                    // The memories are not swapped: use keeps the order of
                    // first appearance.
                    target = prev_target;
                    vael_states_list_destroy(m);
                } else {
                    vael_states_list *kept = copy_of(m);
                    if (!kept) {
                        vael_states_list_destroy(m);
                        return fail(__LINE__);
                    }
                    vael_states_list_destroy(prev_move);
                    prev_move = last_move;
                    prev_target = last_target;
                    last_move = kept;
                    target = target_of(m);
                    if (!target)
                        return fail(__LINE__);
                    last_target = target;
                }
                if (vael_dfa_state_add_trans(d, (unsigned char)c, target) != 0)
                    return fail(__LINE__);
            }
        }
        return true;
    }
};

}  // namespace

extern "C" vael_dfa *vael_nfa2dfa(vael_nfa_env *env, int32_t pattern_id, vael_pm_error *error) {
    if (!env || !(env->env_flags & VAEL_NFA_ENV_FINALIZED) || !env->nfa) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal arguments: env %p\n", (void *)env);
        return nullptr;
    }
    SubsetRun r{env, pattern_id};
    if (vael_states_hash_table_local_nfa_init(&r.local_id, &r.free_list) != 0)
        return nullptr;
    // Of all the pattern's flags only the caret survives here; the caller
    // adds the rest.
    r.dfa = vael_dfa_create(vael_dfa_get_flags(env->dfa) & VAEL_DFA_CARET, error);
    r.pending = vael_states_list_create();
    bool ok = r.dfa && r.pending ? r.start() && r.run() : r.fail(__LINE__);
    if (!ok) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: failed in file %s on line %u\n", __FILE__, r.failed_line);
        vael_dfa_destroy(r.dfa);
        return nullptr;
    }
    vael_dfa_clean_states_list(r.dfa);
    return r.dfa;
}
