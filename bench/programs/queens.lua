local function place(row, n, column, up, down)
  if row > n then return 1 end
  local found = 0
  for c = 1, n do
    if not (column[c] or up[row + c] or down[row - c + n]) then
      column[c], up[row + c], down[row - c + n] = true, true, true
      found = found + place(row + 1, n, column, up, down)
      column[c], up[row + c], down[row - c + n] = false, false, false
    end
  end
  return found
end

local n, column, up, down = math.tointeger(arg[1]), {}, {}, {}
for i = 1, 2 * n do column[i], up[i], down[i] = false, false, false end
print(place(1, n, column, up, down))
