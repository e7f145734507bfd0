' The print engine's typical job, by ProgID: open a document, import a letterhead as forms,
' append it too, save, split a marked print file; and a failure seen as Err.Number with a
' description. (The form identifiers come back as an array of unsigned integers, which
' VBScript cannot read, so placing them is the C++ client's part.) run.sh reads the files back.
'   cscript //nologo job.vbs DOC.pdf LETTERHEAD.pdf MARKED.pdf PREFIX
Option Explicit
Dim passed, failed
passed = 0
failed = 0

Sub Check(ok, what)
    If ok Then passed = passed + 1 Else failed = failed + 1
    If ok Then WScript.Echo "ok - " & what Else WScript.Echo "not ok - " & what
End Sub

Dim args, doc, letterhead
Set args = WScript.Arguments
Set doc = CreateObject("Ostrand.ZPdfContentObject")
Set letterhead = CreateObject("Ostrand.ZPdfContentObject.1")
doc.SetPdfDocument args(0), False, ""
letterhead.SetPdfDocument args(1), False, ""

Check IsArray(doc.ImportContent(letterhead)), "the letterhead is imported as forms"
doc.AppendPages letterhead
Check doc.PageCount = 3, "the letterhead is appended"
doc.Save
Check doc.SplitPdf(args(2), args(3)) = 2, "the marked print file is split into two parts"

On Error Resume Next
doc.SetPdfDocument args(0) & ".missing", False, ""
Check Err.Number = &H80070057 And InStr(Err.Description, "does not exist") > 0, _
    "a missing file fails with E_INVALIDARG: " & Err.Description

WScript.Echo passed & " passed, " & failed & " failed"
WScript.Quit failed
