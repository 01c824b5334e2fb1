"""The C++ of one field: its members, accessors, and how it is packed and unpacked. One class per encoding.

Lines carry no indentation of the class or function around them; `members` and `accessors` go into the class,
`setter_body`, `pack` and `unpack` into functions. `wire` is the word that documentation uses.
"""

from message_table import Field

MAX_COLUMNS = 100
READ_FIELD = "GetField(payload(), nLen, nIndex, sField);"


def block(head: str, *body: str) -> list[str]:
    return [head + " {", *("    " + line for line in body), "}"]


def inline(head: str, body: str) -> list[str]:
    """A member function of one statement: on one line of the class if it fits."""
    one_line = f"{head} {{ {body} }}"
    return [one_line] if len(one_line) <= MAX_COLUMNS - 4 else block(head, body)


class FieldCode:
    """A field of one value; the encodings below override what differs."""

    wire = ""
    value_type = ""
    prefix = ""
    includes: tuple[str, ...] = ()

    def __init__(self, field: Field):
        self.field = field
        self.name = field.name
        self.member = field.member

    @property
    def getter_type(self) -> str:
        return self.value_type

    @property
    def params(self) -> list[str]:
        """The parameters of the setter, and of a constructor."""
        return [f"{self.value_type} {self.argument}"]

    @property
    def arguments(self) -> str:
        """What a constructor passes to the setter."""
        return self.argument

    @property
    def argument(self) -> str:
        return f"{self.prefix}In{self.name}"

    def constants(self) -> list[str]:
        return []

    def members(self) -> list[str]:
        return [f"{self.value_type} {self.member};"]

    def getters(self) -> list[str]:
        out = f"{self.prefix}rOut{self.name}"
        return [
            *inline(f"void Get{self.name}({self.value_type}& {out}) const", f"{out} = {self.member};"),
            *inline(f"[[nodiscard]] {self.getter_type} Get{self.name}() const", f"return {self.member};"),
        ]

    def has_setter(self) -> bool:
        return True

    def setter_body(self) -> list[str]:
        return [f"{self.member} = {self.argument};"]

    def text(self) -> str:
        """The expression for the field's text."""
        return f"std::to_string({self.member})"

    def from_text(self) -> str:
        """The expression for the value, made from `sField`."""
        raise NotImplementedError

    def pack(self) -> list[str]:
        return [f"SetField({self.text()}, nPayloadLen, payload());"]

    def unpack(self) -> list[str]:
        lines = [READ_FIELD, f"Set{self.name}({self.from_text()});"]
        if self.field.rule == "stop_if_empty":
            lines += block("if (sField.empty())", "return;")
        return lines


class DecCode(FieldCode):
    wire = "dec"
    value_type = "int"
    prefix = "n"

    def members(self) -> list[str]:
        return [f"{self.value_type} {self.member} = 0;"]

    def from_text(self) -> str:
        return "nDecOf(sField)"


class UdecCode(DecCode):
    wire = "udec"
    value_type = "unsigned"

    def from_text(self) -> str:
        return "nUdecOf(sField)"


class TextCode(FieldCode):
    wire = "text"
    value_type = "std::string"
    prefix = "s"
    includes = ("<string>",)

    @property
    def params(self) -> list[str]:
        return [f"const std::string& {self.argument}"]

    @property
    def getter_type(self) -> str:
        return "const std::string&"

    def text(self) -> str:
        return self.member

    def from_text(self) -> str:
        return "sField"


class CodeCode(FieldCode):
    wire = "code"
    prefix = "c"

    @property
    def value_type(self) -> str:
        return self.field.code

    def text(self) -> str:
        return f"std::string({self.member}.ToString())"

    def from_text(self) -> str:
        return f"{self.value_type}(sField)"


class BytesCode(FieldCode):
    """An array with a length; the element type decides how a caller sees it."""

    wire = "bytes"
    prefix = "chp"

    @property
    def includes(self) -> tuple[str, ...]:
        return ("<array>", "<string_view>" if self.field.element == "char" else "<gsl/span>")

    @property
    def params(self) -> list[str]:
        return [f"const {self.field.element}* {self.argument}", f"int nIn{self.name}Len"]

    @property
    def arguments(self) -> str:
        return f"{self.argument}, nIn{self.name}Len"

    def constants(self) -> list[str]:
        return [f"static constexpr int {self.field.limit_name} = {self.field.limit};"]

    def members(self) -> list[str]:
        return [
            f"std::array<{self.field.element}, {self.field.limit_name}> {self.member}{{}};",
            f"int {self.field.length} = 0;",
        ]

    def getters(self) -> list[str]:
        size = f"static_cast<std::size_t>({self.field.length})"
        view = "std::string_view" if self.field.element == "char" else "gsl::span<const unsigned char>"
        copy = [
            f"std::copy_n({self.member}.begin(), {self.field.length}, chpOut{self.name});",
            f"nrOut{self.name}Len = {self.field.length};",
        ]
        return [
            f"/// Copies the bytes; `chpOut{self.name}` needs room for {self.field.limit_name}.",
            *block(f"void Get{self.name}({self.field.element}* chpOut{self.name}, int& nrOut{self.name}Len) const",
                   *copy),
            "/// A view of this object, valid until it is changed.",
            *inline(f"[[nodiscard]] {view} Get{self.name}() const", f"return {{{self.member}.data(), {size}}};"),
        ]

    def setter_body(self) -> list[str]:
        return [
            f"{self.field.length} = nBoundedLen({self.argument}, nIn{self.name}Len, {self.field.limit_name});",
            f"std::copy_n({self.argument}, {self.field.length}, {self.member}.begin());",
        ]

    def pack(self) -> list[str]:
        text = f"std::string({self.member}.begin(), {self.member}.begin() + {self.field.length})"
        call = f"SetField({text}, nPayloadLen, payload());"
        if len(call) <= MAX_COLUMNS - 4:
            return [call]
        return [call.removesuffix(" payload());"), "         payload());"]

    def unpack(self) -> list[str]:
        data = "sField.data()" if self.field.element == "char" else "bytesOf(sField)"
        return [READ_FIELD, f"Set{self.name}({data}, static_cast<int>(sField.size()));"]


class KeyCode(BytesCode):
    """A fixed number of bytes: no length is sent or stored."""

    wire = "bytes"

    @property
    def includes(self) -> tuple[str, ...]:
        return ("<array>", "<gsl/span>")

    @property
    def params(self) -> list[str]:
        return [f"const unsigned char* {self.argument}"]

    @property
    def arguments(self) -> str:
        return self.argument

    def members(self) -> list[str]:
        return [f"std::array<unsigned char, {self.field.limit_name}> {self.member}{{}};"]

    def getters(self) -> list[str]:
        return [
            f"/// Copies {self.field.limit_name} bytes.",
            *inline(f"void Get{self.name}(unsigned char* chpOut{self.name}) const",
                   f"std::copy_n({self.member}.begin(), {self.field.limit_name}, chpOut{self.name});"),
            "/// A view of this object, valid until it is changed.",
            *inline(f"[[nodiscard]] gsl::span<const unsigned char> Get{self.name}() const", f"return {self.member};"),
        ]

    def setter_body(self) -> list[str]:
        return [f"std::copy_n({self.argument}, {self.field.limit_name}, {self.member}.begin());"]

    def pack(self) -> list[str]:
        return [f"SetField(std::string({self.member}.begin(), {self.member}.end()), nPayloadLen, payload());"]

    def unpack(self) -> list[str]:
        return [READ_FIELD,
                *block(f"if (sField.size() >= {self.field.limit_name})", f"Set{self.name}(bytesOf(sField));")]


class BlobCode(FieldCode):
    wire = "bytes"
    value_type = "std::string"
    prefix = "chp"
    includes = ("<string>",)

    @property
    def params(self) -> list[str]:
        return [f"const char* {self.argument}", f"unsigned nIn{self.name}Len"]

    def getters(self) -> list[str]:
        return [
            *inline(f"[[nodiscard]] const std::string& Get{self.name}() const", f"return {self.member};"),
            *inline(f"[[nodiscard]] unsigned Get{self.name}Size() const",
                   f"return static_cast<unsigned>({self.member}.size());"),
            "/// Copies the bytes and returns their count; 0, and nothing copied, if `cap` is smaller.",
            f"unsigned Get{self.name}Array(char* out, unsigned cap) const;",
        ]

    def setter_body(self) -> list[str]:
        return [f"{self.member}.assign({self.argument}, {self.argument} == nullptr ? 0 : nIn{self.name}Len);"]

    def definitions(self, class_name: str) -> list[str]:
        return block(
            f"unsigned {class_name}::Get{self.name}Array(char* out, unsigned cap) const",
            f"if (cap < {self.member}.size()) {{",
            "    return 0;",
            "}",
            f"std::copy_n({self.member}.begin(), {self.member}.size(), out);",
            f"return Get{self.name}Size();",
        )

    def text(self) -> str:
        return self.member

    def from_text(self) -> str:
        return "sField.data(), static_cast<unsigned>(sField.size())"


class ListCode(FieldCode):
    wire = "count n, then n times dec"
    value_type = "std::vector<int>"
    prefix = "v"
    includes = ("<vector>",)

    @property
    def params(self) -> list[str]:
        return [f"const std::vector<int>& {self.argument}"]

    @property
    def getter_type(self) -> str:
        return "const std::vector<int>&"

    def pack(self) -> list[str]:
        return [
            f"SetField(std::to_string({self.member}.size()), nPayloadLen, payload());",
            *block(f"for (const int nEntry : {self.member})",
                   "SetField(std::to_string(nEntry), nPayloadLen, payload());"),
        ]

    def unpack(self) -> list[str]:
        return [
            READ_FIELD,
            "const int nCount = nDecOf(sField);",
            "// Whatever the count claims, no more entries are read than there are.",
            f"std::vector<int> {self.argument};",
            *block("for (int i = 0; i < nCount && nLen > 0; ++i)", READ_FIELD,
                   f"{self.argument}.push_back(nDecOf(sField));"),
            f"Set{self.name}({self.argument});",
        ]


class PageCode(FieldCode):
    """The two numbers and their accessors are in PagingInterface."""

    wire = "dec, this page * 256 + total pages"

    def members(self) -> list[str]:
        return []

    def getters(self) -> list[str]:
        return []

    def has_setter(self) -> bool:
        return False

    def text(self) -> str:
        return "std::to_string(nPageMarker())"

    def unpack(self) -> list[str]:
        return [READ_FIELD, "setPageMarkerFrom(nDecOf(sField));"]


CODE_OF = {
    "dec": DecCode,
    "udec": UdecCode,
    "text": TextCode,
    "code": CodeCode,
    "bytes": BytesCode,
    "key": KeyCode,
    "blob": BlobCode,
    "list": ListCode,
    "page": PageCode,
}


def code_of(field: Field) -> FieldCode:
    return CODE_OF[field.encoding](field)
