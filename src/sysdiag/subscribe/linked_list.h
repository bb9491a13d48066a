// Singly linked lists whose members carry the link themselves: a record that stands in two lists has two links.
//
// `Next` is the link's member, as in push_front<&Target::next>(publisher->targets, target). Nothing is owned here.
#pragma once

namespace kova {

template <auto Next, typename Member>
void push_front(Member*& head, Member* member) {
    member->*Next = head;
    head = member;
}

template <auto Next, typename Member>
[[nodiscard]] bool contains(const Member* head, const Member* member) {
    for (; head != nullptr; head = head->*Next) {
        if (head == member) return true;
    }
    return false;
}

// Takes a member out and clears its link. False, with nothing changed, when it is not in this list.
template <auto Next, typename Member>
bool unlink(Member*& head, Member* member) {
    for (Member** place = &head; *place != nullptr; place = &((*place)->*Next)) {
        if (*place != member) continue;
        *place = member->*Next;
        member->*Next = nullptr;
        return true;
    }
    return false;
}

template <auto Next, typename Member, typename Wanted>
[[nodiscard]] Member* find_if(Member* head, const Wanted& is_wanted) {
    while (head != nullptr && !is_wanted(*head)) head = head->*Next;
    return head;
}

}  // namespace kova
