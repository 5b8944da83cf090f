"""Asks a node through the agent: example.py LIBRARY NODE TEXT"""
import ctypes
import sys

library, node, text = sys.argv[1:]
lumo = ctypes.CDLL(library)
for function in (lumo.lumo_answer_words, lumo.lumo_answer_string, lumo.lumo_status_text):
    function.restype = ctypes.c_char_p

agent, answer = ctypes.c_void_p(), ctypes.c_void_p()
status = lumo.lumo_open(None, 5000, ctypes.byref(agent))
if status == 0:
    status = lumo.lumo_ask_text(agent, node.encode(), text.encode(), 5000, ctypes.byref(answer))
if status == 0:
    print(lumo.lumo_answer_string(answer, 3, None).decode())
else:
    words = lumo.lumo_answer_words(answer) or lumo.lumo_status_text(status)
    print(words.decode(), file=sys.stderr)
lumo.lumo_answer_free(answer)
lumo.lumo_close(agent)
sys.exit(status != 0)
